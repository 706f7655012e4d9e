#include <gtest/gtest.h>

#include <limits>

#include "omrakit/settings.h"
#include "src/foundation/number_format.h"
#include "src/mapping/persistence.h"
#include "tests/mapping/mapping_testutil.h"

namespace omra {
namespace {

const char* kPlacements = R"({"placements":[
  {"placement":{"x":1,"y":1,"z":1,"ori":0.5},"asset":{"id":"lamp"}},
  {"placement":{"x":1,"y":0,"z":0,"ori":0},"asset":{"id":"desk"}}]})";

// A localization session with two stored placements, driven answer by answer.
struct Relocalization {
  explicit Relocalization(SessionMode mode = SessionMode::localization) : h(mode) {
    h.findAssetsReply = Json::parse(kPlacements);
    h.open(mode == SessionMode::mapping
               ? Json::parse(R"({"uuid":"MAP-1"})")
               : Json::parse(R"({"session_uuid":"LOC-1","map_uuid":"MAP-1"})"));
    h.setReadyNow();
    persistence =
        Persistence::create(h.state, nullptr, {h.store, h.logger, h.dispatcher.get(), {}});
  }
  ~Relocalization() { persistence.reset(); }
  size_t metric(const std::string& name) const {
    size_t n = 0;
    for (const std::string& m : h.metricNames()) n += m == name;
    return n;
  }
  size_t seededRequests() const {
    size_t n = 0;
    for (const SeenRequest& r : h.http->requestsTo("/initial_transforms")) {
      n += r.body["is_seeded"] == true;
    }
    return n;
  }
  MappingHarness h;
  std::shared_ptr<Persistence> persistence;
};

// Image-matcher results count when strictly better; scene-understanding ones from 0.55 on, when
// better than any of their family. Once one of those is accepted, the image matcher no longer moves
// assets. Each family's first accepted result posts its time (with and without the key), and each
// accepted image-matcher result seeds the scene-understanding localizer.
TEST(Relocalization, WhichAnswersMoveTheAssets) {
  const char *IM = "full_image_matcher", *SU = "su_localizer", *SEEDED = "su_localizer_seeded";
  auto text = [](std::optional<float> v) { return v ? formatFloatShortest(*v) : "-"; };
  const struct {
    std::vector<std::pair<const char*, float>> answers;
    std::string outcome;  // moves, seeded requests, time metrics IM/SU, best values IM/SU
    const char* log;      // a line printed on the way
  } cases[] = {
      {{{IM, 0.2f}, {IM, 0.2f}, {IM, 0.3f}, {IM, 0.1f}},
       "moves 2 seeded 2 metrics 2/0 best 0.3/-",
       "Received image matcher result full_image_matcher: 0.2"},
      {{{SU, 0.5f}, {SU, 0.6f}, {SU, 0.58f}, {SU, 0.7f}, {SU, 0.55f}},
       "moves 2 seeded 0 metrics 0/2 best -/0.7",
       "Received SU result su_localizer: 0.7"},
      {{{SU, 0.7f}, {SEEDED, 0.65f}, {SEEDED, 0.8f}},
       "moves 2 seeded 0 metrics 0/2 best -/0.8",
       "Received SU result su_localizer_seeded: 0.8"},
      {{{SU, 0.6f}, {IM, 0.9f}},
       "moves 1 seeded 1 metrics 2/2 best 0.9/0.6",
       "Received image matcher result full_image_matcher: 0.9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    Relocalization r;
    for (const auto& [localizer, value] : c.answers) {
      r.persistence->transformRetrieved(localizer, "0,0,0,0", value);
    }
    EXPECT_EQ("moves " + std::to_string(r.h.assetsFound().size()) + " seeded " +
                  std::to_string(r.seededRequests()) + " metrics " +
                  std::to_string(r.metric("OmraKit.RelocalizationTime.FullImageMatcher")) + "/" +
                  std::to_string(r.metric("OmraKit.RelocalizationTime.SU")) + " best " +
                  text(r.persistence->bestImageMatcherMatchValue()) + "/" +
                  text(r.persistence->bestSULocalizerMatchValue()),
              c.outcome);
    EXPECT_TRUE(r.h.logger->contains(c.log));
  }
}

TEST(Relocalization, AssetsAreMovedIntoTheSessionFrame) {
  Relocalization r;
  r.persistence->transformRetrieved("su_localizer", "1,0,2,0", 0.6f);
  ASSERT_EQ(r.h.assetsFound().size(), 1u);
  const std::vector<MapAsset> assets = r.h.assetsFound()[0];
  ASSERT_EQ(assets.size(), 2u);
  EXPECT_EQ(assets[0], MapAsset("lamp", Vector3(2, 1, 3), 0.5f));
  EXPECT_EQ(assets[0].confidence, 0.5f);
  EXPECT_EQ(assets[0].matrix, "");
  EXPECT_TRUE(r.h.logger->contains("Relocalized asset new position (2.0, 1.0, 3.0) - dist: "));

  std::vector<MapAsset> turned = r.persistence->convertAssetsToLocalFrame("0,0,0,1.5707964");
  ASSERT_EQ(turned.size(), 2u);
  EXPECT_EQ(turned[1].assetID, "desk");
  EXPECT_NEAR(turned[1].position.x, 0, 1e-6);
  EXPECT_NEAR(turned[1].position.z, -1, 1e-6);
  EXPECT_NEAR(turned[1].orientation, 1.5708f, 1e-4);
}

TEST(Relocalization, MalformedInputIsDroppedNotFatal) {
  Relocalization r;
  // A transform with fewer than four numbers: the whole answer is dropped.
  r.persistence->transformRetrieved("su_localizer", "1,2,3", 0.9f);
  EXPECT_TRUE(r.h.assetsFound().empty());
  EXPECT_FALSE(r.persistence->bestSULocalizerMatchValue());
  EXPECT_EQ(r.metric("OmraKit.RelocalizationTime.SU"), 0u);

  // Placements with missing or mistyped fields are skipped; the others are returned.
  const std::pair<const char*, std::vector<std::string>> replies[] = {
      {R"({"placements":[
          {"placement":{"x":1,"y":1,"z":1},"asset":{"id":"no-ori"}},
          {"placement":{"x":"1","y":1,"z":1,"ori":0},"asset":{"id":"text-x"}},
          {"placement":{"x":1,"y":1,"z":1,"ori":0},"asset":{}},
          7,
          {"placement":{"x":0,"y":0,"z":0,"ori":0},"asset":{"id":"ok"}}]})",
       {"ok"}},
      // Stored values no room holds: beyond the documented bound, or beyond a float.
      {R"({"placements":[
          {"placement":{"x":1e300,"y":0,"z":0,"ori":0},"asset":{"id":"far"}},
          {"placement":{"x":0,"y":-10000.5,"z":0,"ori":0},"asset":{"id":"deep"}},
          {"placement":{"x":0,"y":0,"z":0,"ori":1e39},"asset":{"id":"spun"}},
          {"placement":{"x":-10000,"y":0,"z":10000,"ori":0},"asset":{"id":"edge"}}]})",
       {"edge"}},
      {R"({"placements":{"not":"an array"}})", {}},
  };
  for (const auto& [reply, ids] : replies) {
    r.h.findAssetsReply = Json::parse(reply);
    bool fetched = false;
    r.h.dataManager->retrieveAssets([&](const Json&) { fetched = true; });
    r.h.pumpUntil([&] { return fetched; });
    std::vector<std::string> found;
    for (const MapAsset& a : r.persistence->convertAssetsToLocalFrame("0,0,0,0")) {
      found.push_back(a.assetID);
    }
    EXPECT_EQ(found, ids) << reply;
  }
}

TEST(Relocalization, ImplausibleTransformsNeverReachTheHost) {
  for (const char* transform : {"nan,nan,nan,nan", "inf,0,-inf,0", "1e30,0,-1e30,1e9", "0,0,0,nan",
                                "10000.5,0,0,0", "0,0,0,1e39"}) {
    SCOPED_TRACE(transform);
    Relocalization r;
    r.persistence->transformRetrieved("su_localizer", transform, 0.9f);
    r.persistence->transformRetrieved("full_image_matcher", transform, 0.9f);
    EXPECT_TRUE(r.h.assetsFound().empty());
    EXPECT_FALSE(r.persistence->bestSULocalizerMatchValue());
    EXPECT_TRUE(r.h.logger->contains("unreadable or implausible transform"));
  }
  // A transform inside the bound that carries a stored asset past it drops that asset only.
  Relocalization r;
  std::vector<std::string> ids;
  for (const MapAsset& a : r.persistence->convertAssetsToLocalFrame("9999.5,0,0,0")) {
    ids.push_back(a.assetID);
    EXPECT_TRUE(isPlausiblePosition(a.position));
  }
  EXPECT_TRUE(ids.empty()) << "both stored assets lie at x >= 1";
  EXPECT_EQ(r.persistence->convertAssetsToLocalFrame("9998,0,0,0").size(), 2u);
}

TEST(Relocalization, PollingEveryIntervalUntilRestart) {
  Relocalization r;
  OmraSettings::RETRIEVE_ASSETS_INTERVAL = 1;
  const auto start = std::chrono::steady_clock::now();
  r.persistence->queryAssets(r.h.state->restartCount());
  auto polls = [&] { return r.h.http->requestsTo("/get_best_transform").size(); };
  ASSERT_TRUE(r.h.pumpUntil([&] { return polls() >= 3; }));
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(polls(), 3u);  // one request per localizer
  EXPECT_GE(elapsed, 0.95);
  r.h.state->incrementRestartCount();
  r.h.pumpFor(std::chrono::milliseconds(1200));
  EXPECT_EQ(polls(), 3u);
  // A loop started with a stale count never polls.
  r.persistence->queryAssets(0);
  r.h.pumpFor(std::chrono::milliseconds(50));
  EXPECT_EQ(polls(), 3u);
}

TEST(StorePlacement, MappingSendsAndReportsTheBackEndsAnswer) {
  Relocalization r(SessionMode::mapping);
  std::vector<bool> results;
  r.h.otherReplies = [](const SeenRequest& req) -> std::optional<Json> {
    if (req.url.find("/place_asset_on_map") == std::string::npos) return Json::object();
    if (req.body["placements"].empty()) return Json::parse(R"({"errorMessage":"none"})");
    return Json::parse(R"({"placement_id":"P-1"})");
  };
  EXPECT_TRUE(r.persistence->storePlacement({MapAsset("lamp", {1, 2, 3}, 0.25f)},
                                            [&](bool ok) { results.push_back(ok); }));
  EXPECT_TRUE(r.persistence->storePlacement({}, [&](bool ok) { results.push_back(ok); }));
  r.h.pumpUntil([&] { return results.size() == 2; });
  EXPECT_EQ(results, (std::vector<bool>{true, false}));
  auto sent = r.h.http->requestsTo("/place_asset_on_map");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].body["map_uuid"], "MAP-1");
  EXPECT_EQ(sent[0].body["placements"][0]["asset_id"], "lamp");
  EXPECT_EQ(sent[0].body["placements"][0]["y"], 2.0);
  EXPECT_EQ(r.metric("OmraKit.AssetSaved"), 4u);
}

TEST(StorePlacement, RefusalsLogAndNeverCallBack) {
  // Localization: refused until assets were localized, which this version never records.
  Relocalization localization;
  localization.persistence->transformRetrieved("su_localizer", "0,0,0,0", 0.9f);
  bool called = false;
  EXPECT_FALSE(localization.persistence->storePlacement({MapAsset("a", {}, 0)},
                                                        [&](bool) { called = true; }));
  EXPECT_TRUE(localization.h.logger->contains(
      "Cannot store new assets in localization mode until previous assets have been localized"));
  EXPECT_EQ(localization.metric("OmraKit.AssetSaved"), 2u);  // posted before any check

  // Identifiers that are not text, and positions no map holds, are refused before sending.
  Relocalization mapping(SessionMode::mapping);
  const float kNan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<MapAsset> refused[] = {
      {MapAsset("ok", {}, 0), MapAsset("caf\xc3", {}, 0)},
      {MapAsset("\xff", {}, 0)},
      {MapAsset("far", {1e30f, 0, 0}, 0)},
      {MapAsset("deep", {0, -10001, 0}, 0)},
      {MapAsset("nan", {kNan, 0, 0}, 0)},
      {MapAsset("spun", {}, kNan)},
  };
  for (const auto& assets : refused) {
    EXPECT_FALSE(mapping.persistence->storePlacement(assets, [&](bool) { called = true; }));
  }
  EXPECT_TRUE(mapping.h.logger->contains("an asset identifier is not valid UTF-8"));
  EXPECT_TRUE(mapping.h.logger->contains("Cannot store asset far"));
  mapping.h.pumpFor(std::chrono::milliseconds(20));
  EXPECT_TRUE(mapping.h.http->requestsTo("/place_asset_on_map").empty());

  // Mapping before the map exists.
  MappingHarness h(SessionMode::mapping);
  auto persistence =
      Persistence::create(h.state, nullptr, {h.store, h.logger, h.dispatcher.get(), {}});
  EXPECT_FALSE(persistence->storePlacement({MapAsset("a", {}, 0)}, [&](bool) { called = true; }));
  EXPECT_TRUE(h.logger->contains(
      "OmraSession has not yet been fully initialized. Wait for statusCallback with .initialized "
      "before storing any assets. (mode - 0)"));
  h.pumpFor(std::chrono::milliseconds(20));
  EXPECT_FALSE(called);
  EXPECT_TRUE(h.http->requestsTo("/place_asset_on_map").empty());
  persistence.reset();
}

}  // namespace
}  // namespace omra
