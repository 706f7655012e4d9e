#include "src/cloud/cloud_api.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>

#include "omrakit/settings.h"
#include "src/cloud/metrics.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "tests/cloud/cloud_api_testutil.h"

namespace omra {
namespace {

using testing::CapturingServer;
using testing::CompletionCountingClient;
using testing::FixedDevice;

constexpr char kDevKeyHash[] = "0123456789abcdef0123456789abcdef";

EndpointHosts allHosts(const std::string& origin) {
  return {origin, origin, origin, origin, origin, origin};
}

std::vector<std::string> keysOf(const Json& object) {
  std::vector<std::string> keys;
  for (const auto& item : object.items()) keys.push_back(item.key());
  return keys;
}

// Restores USE_BETA_ALGO, which is process-wide.
class BetaSetting {
 public:
  explicit BetaSetting(bool value) : saved_(OmraSettings::USE_BETA_ALGO.load()) {
    OmraSettings::USE_BETA_ALGO = value;
  }
  ~BetaSetting() { OmraSettings::USE_BETA_ALGO = saved_; }

 private:
  bool saved_;
};

class RecordingMetrics : public MetricsSink {
 public:
  void putMetricData(const std::string& nameSpace, std::vector<MetricDatum> data) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls.push_back({nameSpace, std::move(data)});
  }
  std::mutex mutex_;
  std::vector<std::pair<std::string, std::vector<MetricDatum>>> calls;
};

class CloudApiTest : public ::testing::Test {
 protected:
  CloudAPI makeClient(bool useBeta, const std::string& origin,
                      std::optional<std::string> vendorId = "5B9E6A1C-0F2D-4C7B-9E31-8A6F2D4C1B07",
                      std::string machine = "iPhone10,3",
                      std::shared_ptr<MetricsSink> metrics = nullptr) {
    CloudServices services{http_, std::make_shared<FixedDevice>(machine, vendorId), metrics,
                           Urls(allHosts(origin))};
    return CloudAPI(useBeta, "com.example.host", kDevKeyHash, std::move(services));
  }
  // The body of the only request the server saw, parsed in order.
  Json onlyBody(const std::string& expectedPath) {
    const auto requests = server_.requests();
    EXPECT_EQ(requests.size(), 1u);
    if (requests.empty()) return Json();
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].path, expectedPath);
    EXPECT_EQ(requests[0].contentType, "application/json");
    Json body = Json::parse(requests[0].body, nullptr, false);
    EXPECT_FALSE(body.is_discarded()) << requests[0].body;
    return body;
  }

  AsioDispatcher dispatcher_{2};
  std::shared_ptr<CurlHttpClient> curl_ = std::make_shared<CurlHttpClient>(dispatcher_);
  std::shared_ptr<CompletionCountingClient> http_ =
      std::make_shared<CompletionCountingClient>(curl_);
  CapturingServer server_;
};

TEST_F(CloudApiTest, SessionOpeningBodiesKeyByKey) {
  const LocationValues full{13.404954, 52.520008, 34.5, 5.0, 3.0};
  LocationValues fourOfFive = full;
  fourOfFive.verticalAccuracy.reset();
  const std::string vendor = "5B9E6A1C-0F2D-4C7B-9E31-8A6F2D4C1B07";

  int sent = 0;
  for (bool localization : {false, true}) {
    for (bool withVendor : {true, false}) {
      for (bool withLocation : {true, false}) {
        for (bool beta : {false, true}) {
          SCOPED_TRACE(::testing::Message()
                       << "localization=" << localization << " vendor=" << withVendor
                       << " location=" << withLocation << " beta=" << beta);
          CapturingServer server;
          BetaSetting setting(beta);
          CloudAPI api =
              makeClient(false, server.origin(), withVendor ? std::optional(vendor) : std::nullopt);
          const LocationValues& location = withLocation ? full : fourOfFive;
          Json answer;
          int calls = 0;
          auto callback = [&](Json json) {
            answer = std::move(json);
            ++calls;
          };
          if (localization) {
            api.initiateLocalizationSession("app-1", "user-7", "kitchen", location, callback);
          } else {
            api.initiateMappingSession("app-1", "user-7", "kitchen", location, callback);
          }
          ASSERT_TRUE(http_->waitForCompletions(++sent));
          EXPECT_EQ(calls, 1);
          EXPECT_EQ(answer, Json::object());  // the server's "{}" passed through

          const auto requests = server.requests();
          ASSERT_EQ(requests.size(), 1u);
          EXPECT_EQ(requests[0].path, localization ? "/prod/maps/create_localization_session"
                                                   : "/prod/maps/create_map");
          EXPECT_EQ(requests[0].contentType, "application/json");
          const Json body = Json::parse(requests[0].body, nullptr, false);
          ASSERT_TRUE(body.is_object()) << requests[0].body;

          Json expected = Json::object();
          expected["app_id"] = "app-1";
          expected["user_id"] = "user-7";
          expected["map_id"] = "kitchen";
          expected["developer_key"] = kDevKeyHash;
          expected["pod_version"] = "v0.3.6";
          expected["data_version"] = "0.3";
          expected["device_version"] = "12.4";
          expected["device_model"] = "iPhone X";
          if (withVendor) expected["device_uuid"] = vendor;
          if (withLocation) {
            expected["long"] = 13.404954;
            expected["lat"] = 52.520008;
            expected["alt"] = 34.5;
            expected["horAccuracy"] = 5.0;
            expected["verAccuracy"] = 3.0;
          }
          if (localization && beta) expected["use_beta"] = true;
          EXPECT_EQ(keysOf(body), keysOf(expected));
          EXPECT_EQ(body, expected);
        }
      }
    }
  }
}

TEST_F(CloudApiTest, EndpointChosenOnceAtConstruction) {
  BetaSetting setting(false);
  CloudAPI beta = makeClient(true, server_.origin());
  OmraSettings::USE_BETA_ALGO = false;  // later changes do not move an existing client
  CloudAPI prod = makeClient(false, server_.origin());
  OmraSettings::USE_BETA_ALGO = true;
  EXPECT_EQ(beta.address(), server_.origin() + "/beta/maps");
  EXPECT_EQ(prod.address(), server_.origin() + "/prod/maps");
  beta.findAssetsOnTheMap("M", [](Json) {});
  prod.findAssetsOnTheMap("M", [](Json) {});
  ASSERT_TRUE(http_->waitForCompletions(2));
  std::vector<std::string> paths;
  for (const auto& r : server_.requests()) paths.push_back(r.path);
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, (std::vector<std::string>{"/beta/maps/find_assets_on_the_map",
                                             "/prod/maps/find_assets_on_the_map"}));
}

TEST_F(CloudApiTest, ListNearbyBody) {
  for (bool withUser : {true, false}) {
    CapturingServer server;
    CloudAPI api = makeClient(false, server.origin(), std::nullopt, "iPad7,2");
    int calls = 0;
    api.listNearby("app-1", withUser ? std::optional<std::string>("user-7") : std::nullopt,
                   "caller-key", 13.4, 52.5, 0.02, 0.01, [&](std::vector<Map>) { ++calls; });
    ASSERT_TRUE(http_->waitForCompletions(withUser ? 1 : 2));
    EXPECT_EQ(calls, 1);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].path, "/prod/maps/list_nearby_maps");
    const Json body = Json::parse(requests[0].body, nullptr, false);
    Json expected = Json::object();
    expected["app_id"] = "app-1";
    expected["longitude"] = 13.4;
    expected["latitude"] = 52.5;
    expected["longitude_delta"] = 0.02;
    expected["latitude_delta"] = 0.01;
    expected["developer_key"] = "caller-key";  // as passed, not the client's hash
    expected["pod_version"] = "v0.3.6";
    expected["data_version"] = "0.3";
    expected["device_version"] = "12.4";
    expected["device_model"] = "iPad Pro 12.9 Inch 2. Generation";
    if (withUser) expected["user_id"] = "user-7";
    EXPECT_EQ(keysOf(body), keysOf(expected));
    EXPECT_EQ(body, expected);
  }
}

TEST_F(CloudApiTest, AssetBodies) {
  CloudAPI api = makeClient(false, server_.origin());
  const std::vector<MapAsset> assets{MapAsset("chair", Vector3(0.1f, -2.5f, 3.0f), 1.5707964f),
                                     MapAsset("lamp", Vector3(1e-05f, 0, -0.3f), -0.25f)};
  const double before =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  api.placeAssetOnMap("MAP-1", assets, [](Json) {});
  ASSERT_TRUE(http_->waitForCompletions(1));
  const Json body = onlyBody("/prod/maps/place_asset_on_map");
  EXPECT_EQ(keysOf(body), (std::vector<std::string>{"map_uuid", "placements", "timestamp"}));
  EXPECT_EQ(body["map_uuid"], "MAP-1");
  ASSERT_EQ(body["placements"].size(), 2u);
  const Json& chair = body["placements"][0];
  EXPECT_EQ(keysOf(chair), (std::vector<std::string>{"asset_id", "x", "y", "z", "orientation"}));
  EXPECT_EQ(chair["asset_id"], "chair");
  // Single-precision values go out as their shortest text, not as widened doubles.
  EXPECT_EQ(chair["x"].dump(), "0.1");
  EXPECT_EQ(chair["y"].dump(), "-2.5");
  EXPECT_EQ(chair["z"].dump(), "3.0");
  EXPECT_EQ(chair["orientation"].get<float>(), 1.5707964f);
  EXPECT_EQ(body["placements"][1]["asset_id"], "lamp");
  EXPECT_EQ(body["placements"][1]["x"].get<float>(), 1e-05f);
  ASSERT_TRUE(body["timestamp"].is_number_float());
  EXPECT_GE(body["timestamp"].get<double>(), before);
  EXPECT_LT(body["timestamp"].get<double>(), before + 60);

  api.placeAssetOnMap("MAP-1", {}, [](Json) {});
  api.findAssetsOnTheMap("MAP-2", [](Json) {});
  ASSERT_TRUE(http_->waitForCompletions(3));
  for (const auto& r : server_.requests()) {
    if (r.path == "/prod/maps/find_assets_on_the_map") {
      EXPECT_EQ(r.body, R"({"map_uuid":"MAP-2"})");
    } else if (r.body.find("\"chair\"") == std::string::npos) {
      EXPECT_EQ(Json::parse(r.body, nullptr, false)["placements"], Json::array());
    }
  }
  EXPECT_EQ(server_.requests().size(), 3u);
}

// Session requests: one callback, [] on failure. Asset requests: a callback only with JSON.
// Nearby maps: one callback, possibly empty. The HTTP status is never examined.
TEST_F(CloudApiTest, DeliveryRules) {
  const struct {
    const char* name;
    bool refused;
    int status;
    std::string body;
    std::string contentType;
    bool json;
  } scenarios[] = {
      {"connection refused", true, 0, "", "", false},
      {"html error page", false, 500, "<html><body>Bad gateway</body></html>", "text/html", false},
      {"500 with json", false, 500, R"({"errorMessage":"Internal"})", "application/json", true},
      {"empty body", false, 200, "", "application/json", false},
      {"truncated json", false, 200, R"({"uuid": "AB)", "application/json", false},
      {"not json at all", false, 200, "uuid=AB", "text/plain", false},
  };
  int sent = 0;
  for (const auto& s : scenarios) {
    SCOPED_TRACE(s.name);
    server_.setReply(s.status == 0 ? 200 : s.status, s.body, s.contentType);
    CloudAPI api = makeClient(false, s.refused ? testing::refusedOrigin() : server_.origin());
    std::vector<Json> mapping, localization, placed, found;
    std::vector<std::vector<Map>> nearby;
    api.initiateMappingSession("a", "u", "m", {}, [&](Json j) { mapping.push_back(j); });
    api.initiateLocalizationSession("a", "u", "m", {}, [&](Json j) { localization.push_back(j); });
    api.placeAssetOnMap("M", {}, [&](Json j) { placed.push_back(j); });
    api.findAssetsOnTheMap("M", [&](Json j) { found.push_back(j); });
    api.listNearby("a", std::nullopt, "k", 0, 0, 1, 1,
                   [&](std::vector<Map> maps) { nearby.push_back(maps); });
    sent += 5;
    ASSERT_TRUE(http_->waitForCompletions(sent));

    const Json expectedSession = s.json ? Json::parse(s.body) : Json::array();
    ASSERT_EQ(mapping.size(), 1u);
    EXPECT_EQ(mapping[0], expectedSession);
    ASSERT_EQ(localization.size(), 1u);
    EXPECT_EQ(localization[0], expectedSession);
    EXPECT_EQ(placed.size(), s.json ? 1u : 0u);
    EXPECT_EQ(found.size(), s.json ? 1u : 0u);
    if (s.json) {
      EXPECT_EQ(placed[0]["errorMessage"], "Internal");
      EXPECT_EQ(found[0]["errorMessage"], "Internal");
    }
    ASSERT_EQ(nearby.size(), 1u);
    EXPECT_TRUE(nearby[0].empty());
  }
}

TEST_F(CloudApiTest, NearbyMapsThroughTheServer) {
  server_.setReply(200, R"([
    {"user_id":"u1","map_id":"m1","latitude":52.5,"longitude":13.4,"altitude":34,
     "vertical_accuracy":3,"horizontal_accuracy":5},
    {"user_id":"u2","map_id":"m2","latitude":1,"longitude":2,
     "vertical_accuracy":3,"horizontal_accuracy":5},
    {"user_id":"u3","map_id":"m3","latitude":-1.5,"longitude":-2.5,"altitude":-3.5,
     "vertical_accuracy":0.25,"horizontal_accuracy":0.75}])");
  CloudAPI api = makeClient(false, server_.origin());
  std::vector<Map> maps;
  int calls = 0;
  api.listNearby("a", std::nullopt, "k", 13.4, 52.5, 1, 1, [&](std::vector<Map> m) {
    maps = std::move(m);
    ++calls;
  });
  ASSERT_TRUE(http_->waitForCompletions(1));
  EXPECT_EQ(calls, 1);
  ASSERT_EQ(maps.size(), 2u);
  EXPECT_EQ(maps[0], Map("u1", "m1", 52.5, 13.4, 34, 5, 3));
  EXPECT_EQ(maps[1], Map("u3", "m3", -1.5, -2.5, -3.5, 0.75, 0.25));
}

TEST(CloudApiParsing, NearbyMapsEntries) {
  const std::string good =
      R"("latitude":1,"longitude":2,"altitude":3,"vertical_accuracy":4,"horizontal_accuracy":5)";
  const struct {
    const char* name;
    std::string reply;
    std::vector<std::string> mapIDs;
  } cases[] = {
      {"array", R"([{"user_id":"u","map_id":"a",)" + good + "}]", {"a"}},
      {"object values in order",
       R"({"k2":{"user_id":"u","map_id":"b",)" + good + R"(},"k1":{"user_id":"u","map_id":"a",)" +
           good + "}}",
       {"b", "a"}},
      {"null user", R"([{"user_id":null,"map_id":"a",)" + good + "}]", {}},
      {"numeric map id", R"([{"user_id":"u","map_id":7,)" + good + "}]", {}},
      {"number as string",
       R"([{"user_id":"u","map_id":"a","latitude":"1","longitude":2,"altitude":3,)"
       R"("vertical_accuracy":4,"horizontal_accuracy":5}])",
       {}},
      {"bool as number",
       R"([{"user_id":"u","map_id":"a","latitude":true,"longitude":2,"altitude":3,)"
       R"("vertical_accuracy":4,"horizontal_accuracy":5}])",
       {}},
      {"non-object entries skipped",
       R"([1,"x",null,[],{"user_id":"u","map_id":"c",)" + good + "}]",
       {"c"}},
      {"scalar reply", "42", {}},
      {"string reply", R"("maps")", {}},
      {"null reply", "null", {}},
      {"error object", R"({"errorMessage":"Invalid developer key"})", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Json reply = Json::parse(c.reply, nullptr, false);
    ASSERT_FALSE(reply.is_discarded()) << c.reply;
    std::vector<std::string> ids;
    for (const Map& m : CloudAPI::parseNearbyMaps(reply)) ids.push_back(m.mapID);
    EXPECT_EQ(ids, c.mapIDs);
  }
  // Accuracies arrive vertical first but are stored in their own fields.
  const auto maps =
      CloudAPI::parseNearbyMaps(Json::parse(R"([{"user_id":"u","map_id":"a",)" + good + "}]"));
  ASSERT_EQ(maps.size(), 1u);
  EXPECT_EQ(maps[0].verticalAccuracy, 4);
  EXPECT_EQ(maps[0].horizontalAccuracy, 5);
  EXPECT_EQ(maps[0].latitude, 1);
  EXPECT_EQ(maps[0].longitude, 2);
}

TEST_F(CloudApiTest, PostMetric) {
  auto metrics = std::make_shared<RecordingMetrics>();
  CloudAPI api = makeClient(false, server_.origin(), std::nullopt, "x86_64", metrics);
  api.postMetric(kMetricAssetSaved, std::nullopt, true, true);
  api.postMetric(kMetricTriggerTransformComputeTime, 2.5, false, true);
  api.postMetric(kMetricRelocalizationTimeSU, 1.25, true, false);
  api.postMetric(kMetricRegisterObjectDetectionCallback, std::nullopt, false, false);
  ASSERT_EQ(metrics->calls.size(), 3u);
  for (const auto& call : metrics->calls) EXPECT_EQ(call.first, "OmraKit");

  const auto& both = metrics->calls[0].second;
  ASSERT_EQ(both.size(), 2u);
  EXPECT_EQ(both[0].metricName, "OmraKit.AssetSaved");
  EXPECT_EQ(both[0].unit, "Count");
  EXPECT_EQ(both[0].value, 1);
  EXPECT_EQ(both[0].dimensions,
            (std::vector<std::pair<std::string, std::string>>{{"devKey", kDevKeyHash}}));
  EXPECT_TRUE(both[1].dimensions.empty());
  EXPECT_EQ(both[1].value, 1);

  const auto& withoutKey = metrics->calls[1].second;
  ASSERT_EQ(withoutKey.size(), 1u);
  EXPECT_EQ(withoutKey[0].unit, "Seconds");
  EXPECT_EQ(withoutKey[0].value, 2.5);
  EXPECT_TRUE(withoutKey[0].dimensions.empty());

  const auto& withKey = metrics->calls[2].second;
  ASSERT_EQ(withKey.size(), 1u);
  EXPECT_EQ(withKey[0].metricName, "OmraKit.RelocalizationTime.SU");
  EXPECT_EQ(withKey[0].value, 1.25);
  ASSERT_EQ(withKey[0].dimensions.size(), 1u);
  EXPECT_GT(withKey[0].timestamp, 1.6e9);
}

}  // namespace
}  // namespace omra
