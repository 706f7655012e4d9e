#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <thread>

#include "omrakit/session.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/foundation/fatal.h"
#include "src/platform/fixed_device_info.h"
#include "src/platform/fixed_location_source.h"
#include "src/platform/vision/scripted_detector_model.h"
#include "tests/session/session_testutil.h"

namespace omra {
namespace {

using std::chrono::milliseconds;

ArFrame frameAt(float x) {
  ArFrame frame;
  frame.camera.transform.columns[3] = {x, 0, 0, 1};
  return frame;
}

ArPlaneAnchor plane(const std::string& id, PlaneAlignment alignment) {
  ArPlaneAnchor a;
  a.identifier = id;
  a.alignment = alignment;
  a.boundaryVertices = std::vector<Float3>{{0, 0, 0}, {1, 0, 0}, {1, 0, 1}};
  return a;
}

// One session against the scripted back end. Callbacks record what they receive; the status and
// asset callbacks also check that they run on the main queue (the test thread, which pumps it).
struct SessionRun {
  SessionRun() = default;
  ~SessionRun() {
    t.store->open();  // a failed check must not leave a save stuck at the gate
    session.reset();
  }

  void start(SessionMode mode, SessionOptions options = {}, std::string user = "user-1",
             std::string map = "map-1") {
    if (!options.endpoints) options.endpoints = backend.hosts();
    session = std::make_unique<OmraSession>(
        t.env, mode, std::move(user), std::move(map), "developer-key", 800, 400,
        [this](std::vector<MapAsset> assets) {
          EXPECT_TRUE(t.mainQueue->isCurrent());
          assetsFound.push_back(std::move(assets));
        },
        [this](int64_t count) {
          std::lock_guard lock(mutex);
          progress.push_back(count);
        },
        [this](MapStatus status) {
          EXPECT_TRUE(t.mainQueue->isCurrent());
          statuses.push_back(status);
        },
        [this](std::vector<DetectedObject> objects) {
          std::lock_guard lock(mutex);
          detected += objects.size();
        },
        options);
  }
  MapStatus waitForStatus() {
    EXPECT_TRUE(t.pumpUntil([&] { return !statuses.empty(); }));
    return statuses.empty() ? MapStatus::reserved9 : statuses.front();
  }
  std::vector<int64_t> progressSeen() {
    std::lock_guard lock(mutex);
    return progress;
  }
  // The frame numbers recorded in one camera-path block.
  std::set<int64_t> cameraFrames(const std::string& sessionId, int64_t block) {
    std::set<int64_t> frames;
    for (const Item& item : t.store->items(CameraPathModel::kTableName, sessionId)) {
      std::optional<CameraPathModel> m = CameraPathModel::fromItem(item);
      for (const auto& entry :
           m && m->frameId == block ? *m->transforms : std::map<std::string, std::string>{}) {
        frames.insert(std::stoll(entry.first));
      }
    }
    return frames;
  }

  ScriptedBackend backend;
  TestEnv t;
  std::unique_ptr<OmraSession> session;
  std::vector<MapStatus> statuses;
  std::vector<std::vector<MapAsset>> assetsFound;
  std::mutex mutex;
  std::vector<int64_t> progress;
  size_t detected = 0;
};

TEST(OmraSession, StatusForEveryCreateAnswer) {
  struct Case {
    SessionMode mode;
    int httpStatus;
    const char* body;  // nullptr: nothing listens (connection refused)
    MapStatus status;
  };
  const SessionMode M = SessionMode::mapping, L = SessionMode::localization;
  const Case cases[] = {
      {M, 200, R"({"uuid":"MAP-7"})", MapStatus::initialized},
      {L, 200, R"({"session_uuid":"LOC-7","map_uuid":"MAP-7"})", MapStatus::initialized},
      {L, 400, R"({"errorMessage":"map_id is missing"})", MapStatus::serverError},
      {L, 200, "{}", MapStatus::networkError},
      {M, 502, "<html>Bad gateway</html>", MapStatus::networkError},
      {M, 0, nullptr, MapStatus::networkError},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body ? c.body : "connection refused");
    const bool localization = c.mode == L;
    const std::string path =
        localization ? "/maps/create_localization_session" : "/maps/create_map";
    SessionRun run;
    SessionOptions options;
    if (c.body) {
      run.backend.on(path, [c](const ScriptedBackend::Request&) {
        return ScriptedBackend::Reply{c.httpStatus, c.body};
      });
    } else {
      options.endpoints = ScriptedBackend().hosts();  // a port on which nothing listens any more
    }
    run.start(c.mode, options);
    EXPECT_FALSE(run.session->currentSessionUUID());
    EXPECT_EQ(run.waitForStatus(), c.status);
    run.t.pumpFor(milliseconds(20));
    EXPECT_EQ(run.statuses.size(), 1u);
    const bool opened = c.status == MapStatus::initialized;
    EXPECT_EQ(run.session->currentSessionUUID().has_value(), opened);
    if (opened) {
      EXPECT_EQ(run.session->currentSessionUUID(), localization ? "LOC-7" : "MAP-7");
      EXPECT_EQ(run.session->mappingUUID(), "MAP-7");
      EXPECT_EQ(run.session->localizationUUID().has_value(), localization);
    }
    EXPECT_EQ(run.session->isLocalizationMode(), localization);
    EXPECT_EQ(run.session->omraSessionMode(), rawValue(c.mode));
    // No location source: no coordinates.
    if (c.body) {
      EXPECT_FALSE(run.backend.requests(path).at(0).body.contains("long"));
    }
  }
}

// Identifiers that are not UTF-8 cannot go into a JSON body: the session says so and stays closed,
// and nothing is thrown to the host.
TEST(OmraSession, IdentifiersThatAreNotTextKeepTheSessionClosed) {
  const struct {
    SessionMode mode;
    const char* user;
    const char* map;
  } cases[] = {
      {SessionMode::mapping, "user-\xff", "map-1"},
      {SessionMode::mapping, "user-1", "caf\xc3"},
      {SessionMode::localization, "user-1", "\xed\xa0\x80"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(std::string(c.user) + "/" + c.map));
    SessionRun run;
    ASSERT_NO_THROW(run.start(c.mode, {}, c.user, c.map));
    EXPECT_EQ(run.waitForStatus(), MapStatus::networkError);
    EXPECT_TRUE(run.t.logger->contains("identifier is not valid UTF-8"));
    EXPECT_FALSE(run.session->currentSessionUUID());
    EXPECT_FALSE(run.session->storePlacement({MapAsset("a", {}, 0)}, nullptr));
    run.t.pumpFor(milliseconds(20));
    EXPECT_EQ(run.backend.requestCount("/maps/create_map") +
                  run.backend.requestCount("/maps/create_localization_session") +
                  run.backend.requestCount("/maps/find_assets_on_the_map"),
              0u);
  }
  // An open session refuses such asset and user identifiers per call.
  SessionRun run;
  run.start(SessionMode::mapping);
  ASSERT_EQ(run.waitForStatus(), MapStatus::initialized);
  bool answered = false;
  EXPECT_FALSE(run.session->storePlacement({MapAsset("lamp\xff", {1, 0, 0}, 0)},
                                           [&](bool) { answered = true; }));
  EXPECT_FALSE(run.session->listNearbyMaps(std::string("\xc0\xaf"), 2, 1, 0.1, 0.1, nullptr));
  run.t.pumpFor(milliseconds(50));
  EXPECT_FALSE(answered);
  EXPECT_EQ(run.backend.requestCount("/maps/place_asset_on_map"), 0u);
  EXPECT_EQ(run.backend.requestCount("/maps/list_nearby_maps"), 0u);
}

TEST(OmraSession, CreateRequestCarriesTheHostAndLogsTheStart) {
  SessionRun run;
  run.t.env.location = std::make_shared<FixedLocationSource>(Location{2.35, 48.85, 35, 5, 3});
  run.start(SessionMode::mapping);
  run.waitForStatus();
  auto creates = run.backend.requests("/maps/create_map");
  ASSERT_EQ(creates.size(), 1u);
  // The developer key goes out as the lower-case MD5 of "developer-key".
  const Json expected = {{"app_id", "com.example.host"},
                         {"user_id", "user-1"},
                         {"map_id", "map-1"},
                         {"developer_key", "f8617391e01fcf7da61ff5871e8b4fbf"},
                         {"long", 2.35},
                         {"lat", 48.85},
                         {"verAccuracy", 3.0}};
  for (const auto& item : expected.items()) {
    EXPECT_EQ(creates[0].body[item.key()], item.value()) << item.key();
  }
  EXPECT_EQ(run.session->appID(), "com.example.host");
  EXPECT_TRUE(run.t.logger->contains("initializing OmraSession"));
  EXPECT_TRUE(run.t.logger->contains(
      "OmraSession created for com.example.host user-1map-1 - mode: mapping"));
  const auto data = run.t.metrics->data();
  EXPECT_TRUE(std::any_of(data.begin(), data.end(), [](const MetricDatum& d) {
    return d.metricName == "OmraKit.RegisterObjectDetectionCallback";
  }));
}

TEST(OmraSession, FramesDroppedBeforeInitialisationAndWhileBusy) {
  SessionRun run;
  run.backend.setDelay(milliseconds(200));  // the map opens after the first frames
  run.start(SessionMode::mapping);
  for (int i = 1; i <= 5; ++i) run.session->update(frameAt(0.1f * i));
  ASSERT_EQ(run.waitForStatus(), MapStatus::initialized);
  auto recorded = [&] { return run.t.pumpUntil([&] { return !run.session->updateInProgress(); }); };
  for (int i = 6; i <= 19; ++i) {
    run.session->update(frameAt(0.1f * i));
    ASSERT_TRUE(recorded()) << i;
  }
  run.t.store->close();
  run.session->update(frameAt(2.0f));  // frame 20 closes the first block: its save blocks
  ASSERT_TRUE(run.t.pumpUntil([&] { return run.t.store->waiting() == 1; }));
  for (int i = 21; i <= 25; ++i) run.session->update(frameAt(0.1f * i));  // busy: dropped
  EXPECT_TRUE(run.session->updateInProgress());
  run.t.store->open();
  ASSERT_TRUE(recorded());
  run.session->update(frameAt(2.6f));  // frame 26 is recorded again
  ASSERT_TRUE(recorded());
  run.session->dispose();  // flushes the open block

  std::set<int64_t> expected;
  for (int i = 6; i <= 19; ++i) expected.insert(i);
  EXPECT_EQ(run.cameraFrames("MAP-1", 0), expected);
  EXPECT_EQ(run.cameraFrames("MAP-1", 20), (std::set<int64_t>{20, 26}));
}

TEST(OmraSession, DisposeGivesTheWrittenRecordsABoundedTimeToLeave) {
  SessionRun run;
  run.t.env.recordFlushTimeout = milliseconds(750);
  run.t.store->setFlushResult(false);  // a back end that does not answer in time
  run.start(SessionMode::mapping);
  ASSERT_EQ(run.waitForStatus(), MapStatus::initialized);
  auto recorded = [&] { return run.t.pumpUntil([&] { return !run.session->updateInProgress(); }); };
  for (int i = 1; i <= 3; ++i) {
    run.session->update(frameAt(0.1f * i));
    ASSERT_TRUE(recorded()) << i;
  }
  EXPECT_TRUE(run.t.store->flushes().empty());
  run.session->dispose();
  run.session.reset();  // destruction does not flush a second time
  const auto flushes = run.t.store->flushes();
  ASSERT_EQ(flushes.size(), 1u);
  EXPECT_EQ(flushes[0].timeout, milliseconds(750));
  EXPECT_EQ(flushes[0].cameraRecords, 1u) << "the open block is written before the flush";
  EXPECT_TRUE(run.t.logger->contains("still on their way to the back end"));
}

// Counting itself is covered with ScanProgress and Persistence; here the session's anchors drive
// it.
TEST(OmraSession, ScanProgressAndTriggers) {
  SessionRun run;
  run.start(SessionMode::localization);
  run.waitForStatus();
  run.session->planeDetected(plane("H1", PlaneAlignment::kHorizontal));  // 1
  run.session->planeDetected(plane("H2", PlaneAlignment::kHorizontal));  // not counted
  run.session->planeDetected(plane("V1", PlaneAlignment::kVertical));    // 2
  run.session->planeDetected(plane("V2", PlaneAlignment::kVertical));    // 3
  run.session->planeDetected(plane("V3", PlaneAlignment::kVertical));    // not counted
  ASSERT_TRUE(
      run.t.pumpUntil([&] { return run.backend.requestCount("/full-image-matcher") == 3; }));
  EXPECT_EQ(run.backend.requestCount("/linear-optimizer/initial_transforms"), 0u);
  // 4: both triggers; an anchor that is not a plane is skipped.
  run.session->sessionDidAdd({ArAnchor{"A1", {}}, plane("V4", PlaneAlignment::kVertical)});
  ASSERT_TRUE(run.t.pumpUntil([&] {
    return run.backend.requestCount("/linear-optimizer/initial_transforms") == 1 &&
           run.backend.requestCount("/full-image-matcher") == 4;
  }));
  EXPECT_EQ(run.progressSeen(), (std::vector<int64_t>{1, 2, 3, 4}));
  auto compute = run.backend.requests("/linear-optimizer/initial_transforms");
  EXPECT_EQ(
      compute[0].body.dump(),
      R"({"mapping_session_id":"MAP-1","localization_session_id":"LOC-1","is_seeded":false})");
  EXPECT_EQ(run.backend.requests("/full-image-matcher")[0].body.dump(), R"({"uuid":"LOC-1"})");

  // Planes were recorded with the frame numbers the plane events advanced.
  std::vector<Item> planes = run.t.store->items(DetectedPlaneModel::kTableName, "LOC-1");
  EXPECT_EQ(planes.size(), 6u);  // the list entry shares frame 5 with V3, and both are kept
  std::optional<DetectedPlaneModel> first = DetectedPlaneModel::fromItem(planes.front());
  EXPECT_EQ(first->frameId, 1);
  EXPECT_EQ(first->vertices, "0.0,0.0,0.0|1.0,0.0,0.0|1.0,0.0,1.0");
  run.session->planeRemoved(AnyArAnchor(ArAnchor{"not-a-plane", {}}));  // only moves the count
  run.session->sessionDidRemove({plane("V1", PlaneAlignment::kVertical)});
  planes = run.t.store->items(DetectedPlaneModel::kTableName, "LOC-1");
  std::optional<DetectedPlaneModel> removal = DetectedPlaneModel::fromItem(planes.back());
  EXPECT_EQ(removal->frameId, 6);
  EXPECT_EQ(removal->isRemoved, true);
  EXPECT_EQ(removal->planeId, "V1");
}

TEST(OmraSession, RelocalizationPollingAssetsAndFpsUntilDispose) {
  SessionRun run;
  OmraSettings::RETRIEVE_ASSETS_INTERVAL = 1;
  run.backend.reply("/maps/find_assets_on_the_map",
                    R"({"placements":[{"placement":{"x":1,"y":1,"z":1,"ori":0.5},)"
                    R"("asset":{"id":"lamp"}}]})");
  run.backend.on("/maps/get_best_transform", [](const ScriptedBackend::Request& r) {
    if (r.query.find("localizer=su_localizer_seeded") != std::string::npos) {
      return ScriptedBackend::Reply{200, "{}"};
    }
    if (r.query.find("localizer=su_localizer") != std::string::npos) {
      return ScriptedBackend::Reply{
          200, R"({"MatchValue":"0.8","Localizer":"su_localizer","Transform":"1,0,2,0"})"};
    }
    return ScriptedBackend::Reply{
        200, R"({"MatchValue":"very good","Localizer":"full_image_matcher","Transform":"0"})"};
  });
  run.start(SessionMode::localization);
  for (int i = 0; i < 10; ++i) run.session->update(frameAt(0.01f * i));
  ASSERT_EQ(run.waitForStatus(), MapStatus::initialized);
  ASSERT_TRUE(run.t.pumpUntil([&] { return !run.assetsFound.empty(); }));
  EXPECT_EQ(run.assetsFound[0], std::vector<MapAsset>{MapAsset("lamp", {2, 1, 3}, 0.5f)});
  EXPECT_EQ(run.assetsFound[0].at(0).confidence, 0.5f);
  // The three localizers are polled side by side; the first answer may land before the others ask.
  auto queries = [&] {
    std::set<std::string> seen;
    for (const auto& r : run.backend.requests("/maps/get_best_transform")) seen.insert(r.query);
    return seen;
  };
  ASSERT_TRUE(run.t.pumpUntil([&] { return queries().size() >= 3; }));
  EXPECT_EQ(queries(), (std::set<std::string>{"localizer=full_image_matcher&session_id=LOC-1",
                                              "localizer=su_localizer&session_id=LOC-1",
                                              "localizer=su_localizer_seeded&session_id=LOC-1"}));
  run.t.pumpUntil([&] { return run.t.logger->contains("malformed best-transform"); });
  EXPECT_TRUE(run.t.logger->contains("Dropped a malformed best-transform answer"));

  // The fps meter measured the first second: ten frames handed in, none recorded (not yet open).
  ASSERT_TRUE(run.t.pumpUntil([&] { return run.session->fpsInput() > 0; }));
  EXPECT_EQ(run.session->fpsInput(), 10.0f);

  run.session->dispose();
  run.session->dispose();            // idempotent
  run.t.pumpFor(milliseconds(300));  // polls already on their way may still land
  const size_t polls = run.backend.requestCount("/maps/get_best_transform");
  for (int i = 0; i < 5; ++i) run.session->update(frameAt(1.0f + 0.01f * i));
  run.t.pumpFor(milliseconds(1200));
  const float settled = run.session->fpsInput();
  EXPECT_EQ(run.backend.requestCount("/maps/get_best_transform"), polls);
  run.t.pumpFor(milliseconds(1100));
  EXPECT_EQ(run.session->fpsInput(), settled);
  EXPECT_EQ(run.assetsFound.size(), 1u);  // the same answer again is not better
}

TEST(OmraSession, StorePlacementAndNearbyMaps) {
  SessionRun run;
  run.backend.setDelay(milliseconds(150));
  run.start(SessionMode::mapping);
  std::vector<bool> stored;
  const std::vector<MapAsset> assets{MapAsset("chair", {1, 0, -2}, 1.25f)};
  EXPECT_FALSE(run.session->storePlacement(assets, [&](bool ok) { stored.push_back(ok); }));
  EXPECT_TRUE(run.t.logger->contains("(mode - 0)"));
  run.waitForStatus();
  EXPECT_TRUE(run.session->storePlacement(assets, [&](bool ok) {
    EXPECT_TRUE(run.t.mainQueue->isCurrent());
    stored.push_back(ok);
  }));
  ASSERT_TRUE(run.t.pumpUntil([&] { return !stored.empty(); }));
  EXPECT_EQ(stored, (std::vector<bool>{true}));
  const Json placement = run.backend.requests("/maps/place_asset_on_map").at(0).body;
  EXPECT_EQ(placement["map_uuid"], "MAP-1");
  EXPECT_EQ(placement["placements"][0].dump(),
            R"({"asset_id":"chair","x":1.0,"y":0.0,"z":-2.0,"orientation":1.25})");

  run.backend.reply("/maps/list_nearby_maps",
                    R"([{"user_id":"u","map_id":"m","latitude":1,"longitude":2,"altitude":3,)"
                    R"("vertical_accuracy":4,"horizontal_accuracy":5}])");
  std::optional<std::vector<Map>> maps;
  EXPECT_TRUE(run.session->listNearbyMaps(std::nullopt, 2, 1, 0.1, 0.1,
                                          [&](std::vector<Map> m) { maps = std::move(m); }));
  ASSERT_TRUE(run.t.pumpUntil([&] { return maps.has_value(); }));
  EXPECT_EQ(*maps, std::vector<Map>{Map("u", "m", 1, 2, 3, 5, 4)});

  SessionRun localization;
  localization.start(SessionMode::localization);
  localization.waitForStatus();
  EXPECT_FALSE(localization.session->storePlacement(assets, nullptr));
  EXPECT_TRUE(localization.t.logger->contains("Cannot store new assets in localization mode"));
}

TEST(OmraSession, DetectionHandlerRecordsActivations) {
  SessionRun run;
  run.t.env.detector = ScriptedDetectorModel::returning(ScriptedDetectorModel::outputs(
      Tensor({91, 1917}, TensorDataType::kFloat32), Tensor({4, 1917}, TensorDataType::kFloat32),
      Tensor::fromDoubles({1, 1, 2}, {0.25, 1})));
  run.start(SessionMode::mapping);
  ASSERT_EQ(run.waitForStatus(), MapStatus::initialized);
  PixelBuffer image;
  image.width = image.height = 8;
  image.bytesPerRow = 32;
  image.data = std::make_shared<std::vector<uint8_t>>(256, 128);
  for (int i = 0; i < 12; ++i) {
    ArFrame frame = frameAt(0.05f * i);  // moving: the pipeline runs from the fifth frame on
    frame.capturedImage = image;
    run.session->update(frame);
    std::this_thread::sleep_for(milliseconds(10));
  }
  ASSERT_TRUE(run.t.pumpUntil(
      [&] { return !run.t.store->items(ImageFeaturesModel::kTableName, "MAP-1").empty(); }));
  std::optional<ImageFeaturesModel> features = ImageFeaturesModel::fromItem(
      run.t.store->items(ImageFeaturesModel::kTableName, "MAP-1").front());
  EXPECT_GE(*features->frameId, 5);
  EXPECT_EQ(run.detected, 0u);  // nothing detected: the host is not called
}

TEST(OmraSession, MissingBundleIdentifierIsFatal) {
  TestEnv t;
  FixedDeviceInfo::Values values;
  values.bundleIdentifier = std::nullopt;
  t.env.device = std::make_shared<FixedDeviceInfo>(values);
  setFatalHandler([](std::string_view message) { throw std::runtime_error(std::string(message)); });
  try {
    OmraSession session(t.env, SessionMode::mapping, "u", "m", "k", 1, 1, nullptr, nullptr, nullptr,
                        nullptr);
    ADD_FAILURE() << "a session without a bundle identifier was created";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("bundle identifier is missing"), std::string::npos);
  }
  setFatalHandler(nullptr);
}

}  // namespace
}  // namespace omra
