// The kit's own clients (CloudAPI, DataManager) against a real server on loopback.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <thread>

#include "omrakit/settings.h"
#include "server/localizer_jobs.h"
#include "server/server.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/cloud_api.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/cloud/transform_result_model.h"
#include "src/mapping/data_manager.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/fixed_device_info.h"
#include "src/platform/memory_logger.h"
#include "src/platform/store/memory_record_store.h"
#include "tests/server/server_testutil.h"

namespace omra::server {
namespace {

constexpr auto kWait = std::chrono::seconds(10);
const std::string kDevKey = "0123456789abcdef0123456789abcdef";
const std::string kOtherDevKey = "fedcba9876543210fedcba9876543210";

// Runs a request whose callback receives a T, and waits for it.
template <class T, class Call>
T await(Call call) {
  auto done = std::make_shared<std::promise<T>>();
  auto future = done->get_future();
  call([done](T value) { done->set_value(std::move(value)); });
  if (future.wait_for(kWait) != std::future_status::ready) {
    ADD_FAILURE() << "no answer";
    return T{};
  }
  return future.get();
}

bool isUpperUuid(const std::string& s) {
  if (s.size() != 36 || s[14] != '4') return false;
  for (char c : s) {
    if (std::islower(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

class ProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ServerOptions o;
    o.store = store_;
    o.keepAliveSeconds = 1;
    o.log = [](std::string_view) {};
    server_ = std::make_unique<Server>(o);
    ASSERT_TRUE(server_->start());
    hosts_.mapsBeta = hosts_.mapsProd = hosts_.imageMatcherBeta = hosts_.imageMatcherProd =
        hosts_.linearOptimizerBeta = hosts_.linearOptimizerProd = server_->baseUrl();
    api_ = client(false, kDevKey);
  }
  void TearDown() override {
    // Dropping the clients closes their kept-alive connections, so the server stops at once.
    api_.reset();
    http_.reset();
    server_->stop();
  }

  std::shared_ptr<CloudAPI> client(bool useBeta, const std::string& devKey) {
    CloudServices services{http_, std::make_shared<FixedDeviceInfo>(), nullptr, Urls(hosts_)};
    return std::make_shared<CloudAPI>(useBeta, "com.example.app", devKey, std::move(services));
  }
  Json createMap(const std::string& map, LocationValues where = {},
                 const std::string& user = "ana") {
    return await<Json>(
        [&](auto cb) { api_->initiateMappingSession("com.example.app", user, map, where, cb); });
  }
  // A data manager whose session on map is opened, expecting `want`.
  std::shared_ptr<DataManager> opened(SessionMode mode, const std::string& map,
                                      MapStatus want = MapStatus::initialized) {
    DataManager::Deps deps{api_, logger_, dispatcher_.get(), nullptr};
    auto dm = DataManager::create(deps, mode, {"com.example.app", "ana", map});
    EXPECT_EQ(await<MapStatus>([&](auto cb) {
                mode == SessionMode::mapping ? dm->setMappingMode(cb) : dm->setLocalizationMode(cb);
              }),
              want)
        << map;
    return dm;
  }

  std::shared_ptr<MemoryRecordStore> store_ = std::make_shared<MemoryRecordStore>();
  std::unique_ptr<Server> server_;
  std::shared_ptr<AsioDispatcher> dispatcher_ = std::make_shared<AsioDispatcher>(2);
  std::shared_ptr<CurlHttpClient> http_ = std::make_shared<CurlHttpClient>(*dispatcher_);
  std::shared_ptr<MemoryLogger> logger_ = std::make_shared<MemoryLogger>();
  EndpointHosts hosts_;
  std::shared_ptr<CloudAPI> api_;
};

TEST_F(ProtocolTest, OpensMapsAndLocalizationSessionsOnBothStages) {
  const Json first = createMap("kitchen");
  const Json second = createMap("kitchen");
  ASSERT_TRUE(first.contains("uuid"));
  const std::string newest = second.value("uuid", "");
  EXPECT_TRUE(isUpperUuid(newest)) << newest;
  EXPECT_NE(first["uuid"], second["uuid"]);

  auto session = [](CloudAPI& api, const char* map) {
    return await<Json>(
        [&](auto cb) { api.initiateLocalizationSession("com.example.app", "bo", map, {}, cb); });
  };
  for (bool beta : {false, true}) {
    auto api = client(beta, kDevKey);
    const Json s = session(*api, "kitchen");
    EXPECT_EQ(s.value("map_uuid", ""), newest) << "the newest map of that name";
    EXPECT_TRUE(isUpperUuid(s.value("session_uuid", "")));
    EXPECT_EQ(session(*api, "attic").value("errorMessage", ""), "Cannot find the map attic");
  }
  // Another developer key does not see the map.
  EXPECT_TRUE(session(*client(false, kOtherDevKey), "kitchen").contains("errorMessage"));

  // The data manager reads the answers into its statuses.
  auto mapping = opened(SessionMode::mapping, "hall");
  EXPECT_EQ(opened(SessionMode::localization, "hall")->mapUUID(), mapping->mapUUID());
  opened(SessionMode::localization, "cellar", MapStatus::mapNotFound);
}

TEST_F(ProtocolTest, PlacesAndFindsAssetsInFirstPlacedOrder) {
  const std::string map = createMap("den")["uuid"];
  auto place = [&](std::vector<MapAsset> assets) {
    return await<Json>([&](auto cb) { api_->placeAssetOnMap(map, assets, cb); });
  };
  const Json a = place({{"lamp", {1, 2, 3}, 0.5f}, {"rug", {0, 0, 1}, 0}});
  EXPECT_TRUE(isUpperUuid(a.value("placement_id", "")));
  // The lamp moves (replacing its placement), a vase is new.
  place({{"vase", {4, 0, 4}, 1}, {"lamp", {-1, 0.5f, 2}, 1.5f}});

  const Json found = await<Json>([&](auto cb) { api_->findAssetsOnTheMap(map, cb); });
  std::vector<std::string> order;
  for (const Json& p : found["placements"]) order.push_back(p["asset"]["id"]);
  ASSERT_EQ(order, (std::vector<std::string>{"lamp", "rug", "vase"}));
  const Json& lamp = found["placements"][0]["placement"];
  EXPECT_FLOAT_EQ(lamp["x"].get<float>(), -1);
  EXPECT_FLOAT_EQ(lamp["y"].get<float>(), 0.5f);
  EXPECT_FLOAT_EQ(lamp["z"].get<float>(), 2);
  EXPECT_FLOAT_EQ(lamp["ori"].get<float>(), 1.5f);

  const Json none = await<Json>(
      [&](auto cb) { api_->findAssetsOnTheMap("00000000-0000-4000-8000-000000000000", cb); });
  EXPECT_EQ(none, Json::parse(R"({"placements": []})"));
}

TEST_F(ProtocolTest, ListsNearbyMapsInsideTheBoxNearestFirst) {
  auto at = [](double lon, double lat) { return LocationValues{lon, lat, 12.0, 5.0, 3.0}; };
  // Centre (10, 50), box 2 degrees of longitude by 1 of latitude: edges at 9/11 and 49.5/50.5.
  createMap("corner-ne", at(11, 50.5));
  createMap("corner-sw", at(9, 49.5));
  createMap("east-out", at(11.001, 50));
  createMap("north-out", at(10, 50.501));
  createMap("no-location");
  createMap("bos", at(10, 50), "bo");
  await<Json>([&](auto cb) {
    client(false, kOtherDevKey)
        ->initiateMappingSession("com.example.app", "ana", "foreign", at(10, 50), cb);
  });

  // Each account lists with its own client: the body's key must be the header's.
  auto list = [&](std::optional<std::string> user, const std::string& key) {
    auto api = key == kDevKey ? api_ : client(false, key);
    return await<std::vector<Map>>(
        [&](auto cb) { api->listNearby("com.example.app", user, key, 10, 50, 2, 1, cb); });
  };
  auto ids = [&](std::optional<std::string> user, const std::string& key) {
    std::vector<std::string> out;
    for (const Map& m : list(user, key)) out.push_back(m.mapID);
    return out;
  };
  using Ids = std::vector<std::string>;
  // The south-west corner lies farther: a degree of longitude is longer further south.
  ASSERT_EQ(ids(std::nullopt, kDevKey), (Ids{"bos", "corner-ne", "corner-sw"}));
  EXPECT_EQ(ids("ana", kDevKey), (Ids{"corner-ne", "corner-sw"}));
  EXPECT_EQ(ids(std::nullopt, kOtherDevKey), Ids{"foreign"});
  EXPECT_EQ(list(std::nullopt, kDevKey)[1], Map("ana", "corner-ne", 50.5, 11, 12, 5, 3));
}

TEST_F(ProtocolTest, BestTransformIgnoresSuppressedResults) {
  createMap("office");
  auto dm = opened(SessionMode::localization, "office");
  ASSERT_TRUE(dm->localizationSessionUUID());
  const std::string session = *dm->localizationSessionUUID();

  std::mutex mu;
  std::condition_variable arrived;
  std::vector<std::tuple<std::string, std::string, float>> answers;
  dm->setTransformRetrievedHandler([&](const std::string& a, const std::string& t, float v) {
    std::lock_guard<std::mutex> lock(mu);
    answers.emplace_back(a, t, v);
    arrived.notify_all();
  });
  // Asks for the three localizers' answers; waits for `expected` of them, then a little longer
  // so that an unexpected extra one would be seen too.
  auto poll = [&](size_t expected) {
    std::unique_lock<std::mutex> lock(mu);
    answers.clear();
    lock.unlock();
    dm->getLatestTransform();
    lock.lock();
    arrived.wait_for(lock, kWait, [&] { return answers.size() >= expected; });
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    lock.lock();
    return answers;
  };
  EXPECT_TRUE(poll(0).empty()) << "no result yet: {}";

  auto put = [&](double ts, const char* value, const char* localizer, bool suppress) {
    const TransformResultModel r{session,   ts,      value, std::string("1,2,3,") + value,
                                 localizer, suppress};
    ASSERT_FALSE(store_->put(TransformResultModel::kTableName, r.toItem()));
  };
  put(100, "0.6", kSuLocalizer, false);
  put(101, "0.9", kSuLocalizer, true);  // the highest, but suppressed
  put(102, "0.75", kSuLocalizer, false);
  put(103, "0.7", kSuLocalizer, false);
  put(104, "0.3", kImageMatcher, false);
  auto got = poll(2);
  ASSERT_EQ(got.size(), 2u);
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got[0], std::make_tuple(std::string(kImageMatcher), std::string("1,2,3,0.3"), 0.3f));
  EXPECT_EQ(got[1], std::make_tuple(std::string(kSuLocalizer), std::string("1,2,3,0.75"), 0.75f));
  dm->setTransformRetrievedHandler(nullptr);
}

// Records written with the kit's own models, localizers triggered through the data manager.
TEST_F(ProtocolTest, TriggersRunTheLocalizersAndWriteResults) {
  auto mapping = opened(SessionMode::mapping, "studio");
  auto loc = opened(SessionMode::localization, "studio");
  ASSERT_TRUE(mapping->mapUUID() && loc->localizationSessionUUID());
  const std::string mapId = *mapping->mapUUID(), sessionId = *loc->localizationSessionUUID();
  const Pose4 truth{0.8, 0, -1.2, 0.7};

  // Objects: three sightings each, in both sessions.
  const auto room = testing::makeRoom(10, 12, 5);
  int64_t frame = 0, recordId = 0;
  for (const auto& [id, landmarks] :
       {std::pair{mapId, room}, std::pair{sessionId, testing::seenFrom(room, truth, 0.005, 6)}}) {
    for (int k = 0; k < 3; ++k) {
      for (const Landmark& l : landmarks) {
        SceneUnderstandingModel m(id, ++frame, l.position[0], l.position[1], l.position[2], l.label,
                                  0.9f, l.objectId, id == sessionId);
        ASSERT_FALSE(
            store_->put(SceneUnderstandingModel::kTableName, withRecordId(m.toItem(), ++recordId)));
      }
    }
  }
  // Image features with camera paths, every feature frame 2 frames off its pose.
  const auto mapFrames = testing::makeFrames(40, 32, 7);
  for (const auto& [id, frames] :
       {std::pair{mapId, mapFrames},
        std::pair{sessionId, testing::reseen(mapFrames, truth, 0, 0, 8)}}) {
    std::map<int64_t, std::map<std::string, std::string>> blocks;
    for (size_t i = 0; i < frames.size(); ++i) {
      const int64_t f = static_cast<int64_t>(i) * 10;
      const auto& p = frames[i].cameraPose;
      Matrix4x4 m;
      for (size_t c = 0; c < 4; ++c) {
        m.columns[c] = {float(p[c]), float(p[4 + c]), float(p[8 + c]), float(p[12 + c])};
      }
      blocks[f / 20 * 20][std::to_string(f)] = CameraPathModelQueue::poseText(m);
      std::vector<double> v(frames[i].features.begin(), frames[i].features.end());
      ASSERT_FALSE(
          store_->put(ImageFeaturesModel::kTableName,
                      withRecordId(ImageFeaturesModel(id, f + 2, v).toItem(), ++recordId)));
    }
    for (auto& [start, poses] : blocks) {
      ASSERT_FALSE(
          store_->put(CameraPathModel::kTableName,
                      withRecordId(CameraPathModel(id, start, poses).toItem(), ++recordId)));
    }
  }

  MapStore reader(*store_);
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  auto waitFor = [&](const char* localizer) {
    std::optional<StoreError> e;
    while (!reader.bestTransform(sessionId, localizer, &e) &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  };
  for (int k = 0; k < 5; ++k) loc->triggerImageMatchTrigger(sessionId);
  loc->triggerTransformCompute(mapId, sessionId, false);
  waitFor(kImageMatcher);
  // Now the seeded run has an image-matcher result to start from.
  loc->triggerTransformCompute(mapId, sessionId, true);
  waitFor(kSuLocalizerSeeded);
  waitFor(kSuLocalizer);

  for (const char* localizer : {kImageMatcher, kSuLocalizer, kSuLocalizerSeeded}) {
    SCOPED_TRACE(localizer);
    std::optional<StoreError> e;
    auto best = reader.bestTransform(sessionId, localizer, &e);
    ASSERT_TRUE(best);
    EXPECT_EQ(best->suppress, false);
    auto pose = Pose4::parse(*best->transform);
    ASSERT_TRUE(pose);
    EXPECT_NEAR(pose->tx, truth.tx, 0.03);
    EXPECT_NEAR(pose->tz, truth.tz, 0.03);
    EXPECT_NEAR(pose->theta, truth.theta, 0.02);
    EXPECT_GT(std::stod(*best->matchValue), 0.5);
  }
}

}  // namespace
}  // namespace omra::server
