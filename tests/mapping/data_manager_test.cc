#include "src/mapping/data_manager.h"

#include <gtest/gtest.h>

#include "tests/mapping/mapping_testutil.h"

namespace omra {
namespace {

TEST(DataManager, StatusForEveryCreateAnswer) {
  struct Case {
    SessionMode mode;
    const char* answer;  // nullptr: connection refused
    MapStatus status;
  };
  const Case cases[] = {
      {SessionMode::mapping, R"({"uuid":"MAP-1"})", MapStatus::initialized},
      {SessionMode::mapping, R"({"errorMessage":"Cannot find the map x"})", MapStatus::serverError},
      {SessionMode::mapping, R"({})", MapStatus::networkError},
      {SessionMode::mapping, R"({"uuid":7})", MapStatus::networkError},
      {SessionMode::mapping, nullptr, MapStatus::networkError},
      {SessionMode::localization, R"({"session_uuid":"LOC-1","map_uuid":"MAP-1"})",
       MapStatus::initialized},
      {SessionMode::localization, R"({"errorMessage":"Error: Cannot find the map m1!"})",
       MapStatus::mapNotFound},
      {SessionMode::localization, R"({"errorMessage":"Invalid developer key"})",
       MapStatus::serverError},
      {SessionMode::localization, R"({"errorMessage":null})", MapStatus::serverError},
      {SessionMode::localization, R"({})", MapStatus::networkError},
      {SessionMode::localization, R"([])", MapStatus::networkError},
      {SessionMode::localization, nullptr, MapStatus::networkError},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer ? c.answer : "refused");
    MappingHarness h(c.mode);
    std::optional<Json> answer;
    if (c.answer) answer = Json::parse(c.answer);
    EXPECT_EQ(h.open(answer), c.status);
    const bool opened = c.status == MapStatus::initialized;
    EXPECT_EQ(h.state->currentSessionIdentifier().has_value(), opened);
    // The whole reply is printed.
    EXPECT_TRUE(h.logger->contains(answer ? answer->dump() : "[]"));
  }
}

TEST(DataManager, IdentifiersByMode) {
  MappingHarness mapping(SessionMode::mapping);
  mapping.open(Json::parse(R"({"uuid":"MAP-1"})"));
  EXPECT_EQ(mapping.dataManager->mapUUID(), "MAP-1");
  EXPECT_FALSE(mapping.dataManager->localizationSessionUUID());
  EXPECT_TRUE(mapping.http->requestsTo("/find_assets_on_the_map").empty());

  MappingHarness localization(SessionMode::localization);
  localization.findAssetsReply = Json::parse(R"({"placements":[{"asset":{"id":"a"}}]})");
  localization.open(Json::parse(R"({"session_uuid":"LOC-1","map_uuid":"MAP-9"})"));
  EXPECT_EQ(localization.dataManager->localizationSessionUUID(), "LOC-1");
  EXPECT_EQ(localization.dataManager->mapUUID(), "MAP-9");
  EXPECT_EQ(localization.state->currentSessionIdentifier(), "LOC-1");
  // The stored assets of the map are preloaded.
  auto finds = localization.http->requestsTo("/find_assets_on_the_map");
  ASSERT_EQ(finds.size(), 1u);
  EXPECT_EQ(finds[0].body["map_uuid"], "MAP-9");
  ASSERT_TRUE(localization.dataManager->preloadedAssetJSON());
  EXPECT_EQ(*localization.dataManager->preloadedAssetJSON(), localization.findAssetsReply);
}

TEST(DataManager, ComputeTriggersSendTheirBodiesAndPrint) {
  MappingHarness h(SessionMode::localization);
  h.open(Json::parse(R"({"session_uuid":"LOC-1","map_uuid":"MAP-1"})"));
  h.dataManager->triggerTransformCompute("MAP-1", "LOC-1", true);
  h.dataManager->triggerImageMatchTrigger("LOC-1");
  h.pumpUntil([&] { return h.logger->prints().size() >= 5; });

  auto transform = h.http->requestsTo("/linear-optimizer/initial_transforms");
  ASSERT_EQ(transform.size(), 1u);
  EXPECT_EQ(transform[0].url, "http://optimizer.test/prod/linear-optimizer/initial_transforms");
  EXPECT_EQ(transform[0].body.dump(),
            R"({"mapping_session_id":"MAP-1","localization_session_id":"LOC-1","is_seeded":true})");
  auto image = h.http->requestsTo("/full-image-matcher");
  ASSERT_EQ(image.size(), 1u);
  EXPECT_EQ(image[0].url, "http://matcher.test/prod/full-image-matcher");
  EXPECT_EQ(image[0].body.dump(), R"({"uuid":"LOC-1"})");
  EXPECT_TRUE(h.logger->contains(
      "asking for new transform. Mapping session id: MAP-1, localitzation session id: LOC-1. "
      "Seeded: true"));
  EXPECT_TRUE(h.logger->contains("asking for new matching transform. LOC-1"));
  EXPECT_TRUE(h.logger->contains("Transform requested"));
}

TEST(DataManager, BestTransformPollingAndAnswers) {
  MappingHarness h(SessionMode::localization);
  std::vector<std::tuple<std::string, std::string, float>> handled;
  h.dataManager->setTransformRetrievedHandler(
      [&](const std::string& a, const std::string& t, float v) { handled.emplace_back(a, t, v); });
  // Before any identifier nothing is sent.
  h.dataManager->getLatestTransform();
  EXPECT_TRUE(h.http->requests().empty());

  h.otherReplies = [](const SeenRequest& r) -> std::optional<Json> {
    if (r.url.find("localizer=full_image_matcher") != std::string::npos) {
      // The answer names another localizer: that name is passed on.
      return Json::parse(R"({"MatchValue":"0.42","Localizer":"x_loc","Transform":"1,2,3,4"})");
    }
    if (r.url.find("localizer=su_localizer_seeded") != std::string::npos) {
      return Json::parse(R"({"MatchValue":"oops","Localizer":"s","Transform":"1,2,3,4"})");
    }
    return Json::parse(R"({"Localizer":"su_localizer"})");  // no result yet
  };
  h.open(Json::parse(R"({"session_uuid":"LOC-1","map_uuid":"MAP-1"})"));
  h.dataManager->getLatestTransform();
  h.pumpUntil([&] { return h.logger->contains("malformed"); });
  h.pumpFor(std::chrono::milliseconds(20));

  auto polls = h.http->requestsTo("/get_best_transform");
  ASSERT_EQ(polls.size(), 3u);
  EXPECT_EQ(polls[0].method, HttpMethod::kGet);
  EXPECT_EQ(polls[0].url,
            "http://maps.test/prod/maps/get_best_transform?session_id=LOC-1&localizer="
            "full_image_matcher");
  EXPECT_EQ(polls[1].url.substr(polls[1].url.find('?')),
            "?session_id=LOC-1&localizer=su_localizer");
  EXPECT_EQ(polls[2].url.substr(polls[2].url.find('?')),
            "?session_id=LOC-1&localizer=su_localizer_seeded");
  ASSERT_EQ(handled.size(), 1u);
  EXPECT_EQ(std::get<0>(handled[0]), "x_loc");
  EXPECT_EQ(std::get<1>(handled[0]), "1,2,3,4");
  EXPECT_EQ(std::get<2>(handled[0]), 0.42f);
}

TEST(DataManager, DictionaryConversion) {
  EXPECT_TRUE(DataManager::convertToDictionary(R"({"a":1})"));
  EXPECT_FALSE(DataManager::convertToDictionary("[1]"));
  EXPECT_FALSE(DataManager::convertToDictionary("<html>"));
  EXPECT_FALSE(DataManager::convertToDictionary(""));
  EXPECT_FALSE(DataManager::convertToDictionary("{\"a\":\"\xff\"}"));  // not UTF-8
  // A deep value followed by another key: refused before any document is built.
  EXPECT_FALSE(
      DataManager::convertToDictionary("{\"a\":" + std::string(100000, '[') + "],\"b\":1}"));
}

TEST(DataManager, DataDirectoryCarriesTheCreationTime) {
  MappingHarness h(SessionMode::mapping);
  std::tm t{};
  ASSERT_TRUE(strptime("2024-01-31 15:45:02", "%Y-%m-%d %H:%M:%S", &t));
  t.tm_isdst = -1;  // local time, whatever the season
  auto when = std::chrono::system_clock::from_time_t(std::mktime(&t));
  auto manager = DataManager::create({h.cloudApi, h.logger, h.dispatcher.get(), nullptr},
                                     SessionMode::mapping, {"a", "u", "m"}, when);
  EXPECT_EQ(manager->dataDirectory(), "omra/240131_154502");
}

}  // namespace
}  // namespace omra
