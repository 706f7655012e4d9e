#include "src/cloud/cloud_api.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "omrakit/settings.h"
#include "src/cloud/metrics.h"
#include "src/foundation/json_reader.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/fixed_device_info.h"
#include "src/platform/memory_metrics_sink.h"
#include "tests/common/locale_testutil.h"
#include "tests/platform/loopback_server_testutil.h"

namespace omra {
namespace {

using testing::RecordingServer;

// Forwards to a real client and counts completions after the caller's completion returned, so a
// test can tell "no callback" from "not yet". Thread-safe.
class CompletionCountingClient : public HttpClient {
 public:
  explicit CompletionCountingClient(std::shared_ptr<HttpClient> inner) : inner_(std::move(inner)) {}
  void send(HttpRequest request, Completion completion) override {
    inner_->send(std::move(request), [this, completion = std::move(completion)](HttpResponse r) {
      completion(std::move(r));
      std::lock_guard lock(mutex_);
      ++completed_;
      cv_.notify_all();
    });
  }
  // Waits until count completions have run; false after ten seconds.
  bool waitForCompletions(int count) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(10), [&] { return completed_ >= count; });
  }

 private:
  std::shared_ptr<HttpClient> inner_;
  std::mutex mutex_;
  std::condition_variable cv_;
  int completed_ = 0;
};

constexpr char kDevKeyHash[] = "0123456789abcdef0123456789abcdef";

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

class CloudApiTest : public ::testing::Test {
 protected:
  CloudAPI makeClient(bool useBeta, const std::string& origin,
                      std::optional<std::string> vendorId = std::nullopt,
                      std::string machine = "iPhone10,3",
                      std::shared_ptr<MetricsSink> metrics = nullptr) {
    auto device = std::make_shared<FixedDeviceInfo>(
        FixedDeviceInfo::Values{"com.example.host", "12.4", machine, vendorId, std::nullopt});
    CloudServices services{http_, device, metrics,
                           Urls({origin, origin, origin, origin, origin, origin})};
    return CloudAPI(useBeta, "com.example.host", kDevKeyHash, std::move(services));
  }
  // The only request a server saw: its path, and its body parsed in order.
  std::pair<std::string, Json> onlyRequest(const RecordingServer& server) {
    const auto requests = server.requests();
    EXPECT_EQ(requests.size(), 1u);
    if (requests.empty()) return {};
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].get_header_value("Content-Type"), "application/json");
    Json body = Json::parse(requests[0].body, nullptr, false);
    EXPECT_TRUE(body.is_object()) << requests[0].body;
    return {requests[0].path, body};
  }

  AsioDispatcher dispatcher_{2};
  std::shared_ptr<CompletionCountingClient> http_ =
      std::make_shared<CompletionCountingClient>(std::make_shared<CurlHttpClient>(dispatcher_));
  RecordingServer server_;
};

// Json equality of ordered objects also checks the key order.
TEST_F(CloudApiTest, SessionOpeningBodiesKeyByKey) {
  const LocationValues full{13.404954, 52.520008, 34.5, 5.0, 3.0};
  LocationValues fourOfFive = full;
  fourOfFive.verticalAccuracy.reset();
  const std::string vendor = "5B9E6A1C-0F2D-4C7B-9E31-8A6F2D4C1B07";

  int sent = 0;
  for (int combination = 0; combination < 16; ++combination) {
    const bool localization = combination & 1, withVendor = combination & 2,
               withLocation = combination & 4, beta = combination & 8;
    SCOPED_TRACE(::testing::Message() << "localization=" << localization << " vendor=" << withVendor
                                      << " location=" << withLocation << " beta=" << beta);
    RecordingServer server;
    BetaSetting setting(beta);
    CloudAPI api =
        makeClient(false, server.origin(), withVendor ? std::optional(vendor) : std::nullopt);
    std::vector<Json> answers;
    auto callback = [&](Json json) { answers.push_back(std::move(json)); };
    const LocationValues& location = withLocation ? full : fourOfFive;
    if (localization) {
      api.initiateLocalizationSession("app-1", "user-7", "kitchen", location, callback);
    } else {
      api.initiateMappingSession("app-1", "user-7", "kitchen", location, callback);
    }
    ASSERT_TRUE(http_->waitForCompletions(++sent));
    EXPECT_EQ(answers, std::vector<Json>{Json::object()});  // the server's "{}" passed through

    const auto [path, body] = onlyRequest(server);
    EXPECT_EQ(path,
              localization ? "/prod/maps/create_localization_session" : "/prod/maps/create_map");
    Json expected = {{"app_id", "app-1"},        {"user_id", "user-7"},
                     {"map_id", "kitchen"},      {"developer_key", kDevKeyHash},
                     {"pod_version", "v0.3.6"},  {"data_version", "0.3"},
                     {"device_version", "12.4"}, {"device_model", "iPhone X"}};
    if (withVendor) expected["device_uuid"] = vendor;
    if (withLocation) {
      expected.update(Json{{"long", 13.404954},
                           {"lat", 52.520008},
                           {"alt", 34.5},
                           {"horAccuracy", 5.0},
                           {"verAccuracy", 3.0}});
    }
    if (localization && beta) expected["use_beta"] = true;
    EXPECT_EQ(body, expected);
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
    RecordingServer server;
    CloudAPI api = makeClient(false, server.origin(), std::nullopt, "iPad7,2");
    int calls = 0;
    api.listNearby("app-1", withUser ? std::optional<std::string>("user-7") : std::nullopt,
                   "caller-key", 13.4, 52.5, 0.02, 0.01, [&](std::vector<Map>) { ++calls; });
    ASSERT_TRUE(http_->waitForCompletions(withUser ? 1 : 2));
    EXPECT_EQ(calls, 1);
    const auto [path, body] = onlyRequest(server);
    EXPECT_EQ(path, "/prod/maps/list_nearby_maps");
    // The developer key goes out as passed, not as the client's hash.
    Json expected = {
        {"app_id", "app-1"},        {"longitude", 13.4},
        {"latitude", 52.5},         {"longitude_delta", 0.02},
        {"latitude_delta", 0.01},   {"developer_key", "caller-key"},
        {"pod_version", "v0.3.6"},  {"data_version", "0.3"},
        {"device_version", "12.4"}, {"device_model", "iPad Pro 12.9 Inch 2. Generation"}};
    if (withUser) expected["user_id"] = "user-7";
    EXPECT_EQ(body, expected);
  }
}

TEST_F(CloudApiTest, AssetBodies) {
  CloudAPI api = makeClient(false, server_.origin());
  const double before =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  api.placeAssetOnMap("MAP-1",
                      {MapAsset("chair", Vector3(0.1f, -2.5f, 3.0f), 1.5707964f),
                       MapAsset("lamp", Vector3(1e-05f, 0, -0.3f), -0.25f)},
                      [](Json) {});
  ASSERT_TRUE(http_->waitForCompletions(1));
  auto [path, body] = onlyRequest(server_);
  EXPECT_EQ(path, "/prod/maps/place_asset_on_map");
  ASSERT_TRUE(body["timestamp"].is_number_float());
  EXPECT_GE(body["timestamp"].get<double>(), before);
  EXPECT_LT(body["timestamp"].get<double>(), before + 60);
  body["timestamp"] = 0;
  Json& chair = body["placements"][0];
  EXPECT_EQ(chair["orientation"].get<float>(), 1.5707964f);
  chair["orientation"] = 0;
  EXPECT_EQ(body["placements"][1]["asset_id"], "lamp");
  EXPECT_EQ(body["placements"][1]["x"].get<float>(), 1e-05f);
  body["placements"].erase(1);
  // Single-precision values go out as their shortest text, not as widened doubles.
  EXPECT_EQ(body.dump(), R"({"map_uuid":"MAP-1","placements":[{"asset_id":"chair","x":0.1,)"
                         R"("y":-2.5,"z":3.0,"orientation":0}],"timestamp":0})");

  api.placeAssetOnMap("MAP-1", {}, [](Json) {});
  api.findAssetsOnTheMap("MAP-2", [](Json) {});
  ASSERT_TRUE(http_->waitForCompletions(3));
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 3u);
  for (size_t i = 1; i < 3; ++i) {
    if (requests[i].path == "/prod/maps/find_assets_on_the_map") {
      EXPECT_EQ(requests[i].body, R"({"map_uuid":"MAP-2"})");
    } else {
      EXPECT_EQ(Json::parse(requests[i].body, nullptr, false)["placements"], Json::array());
    }
  }
}

// Session requests: one callback, [] on failure. Asset requests: a callback only with JSON.
// Nearby maps: one callback, possibly empty. The HTTP status is never examined.
TEST_F(CloudApiTest, DeliveryRules) {
  const struct {
    const char* name;
    int status;  // 0: connection refused
    std::string body;
    std::string contentType;
    bool json;
  } scenarios[] = {
      {"connection refused", 0, "", "", false},
      {"html error page", 500, "<html><body>Bad gateway</body></html>", "text/html", false},
      {"500 with json", 500, R"({"errorMessage":"Internal"})", "application/json", true},
      {"empty body", 200, "", "application/json", false},
      {"truncated json", 200, R"({"uuid": "AB)", "application/json", false},
      {"not json at all", 200, "uuid=AB", "text/plain", false},
      // Refused by the client's reader, and never parsed a second time.
      {"deeply nested", 200, "{\"uuid\":" + std::string(100000, '[') + "],\"x\":1}",
       "application/json", false},
      {"not utf-8", 200, "{\"uuid\":\"\xff\"}", "application/json", false},
  };
  int sent = 0;
  for (const auto& s : scenarios) {
    SCOPED_TRACE(s.name);
    server_.setReply({s.status == 0 ? 200 : s.status, s.body, s.contentType});
    CloudAPI api = makeClient(
        false, s.status == 0 ? "http://127.0.0.1:" + std::to_string(testing::unusedLoopbackPort())
                             : server_.origin());
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

    const std::vector<Json> session{s.json ? Json::parse(s.body) : Json::array()};
    EXPECT_EQ(mapping, session);
    EXPECT_EQ(localization, session);
    const std::vector<Json> asset = s.json ? session : std::vector<Json>{};
    EXPECT_EQ(placed, asset);
    EXPECT_EQ(found, asset);
    EXPECT_EQ(nearby, std::vector<std::vector<Map>>(1));
  }
}

// A host's own client may leave bodies unparsed, or mark a refused one: either way the reader is
// the bounded one, and a refused body stays refused.
TEST(CloudApiParsing, ReplyJsonReadsOnceAndBounded) {
  const std::string deep = "{\"uuid\":" + std::string(100000, '[') + "],\"x\":1}";
  const struct {
    const char* name;
    HttpResponse response;
    std::optional<Json> expected;
  } cases[] = {
      {"unparsed object", {200, "", R"({"uuid":"A"})", std::nullopt, {}}, Json{{"uuid", "A"}}},
      {"unparsed deep", {200, "", deep, std::nullopt, {}}, std::nullopt},
      {"unparsed not utf-8", {200, "", "[\"\xc3\x28\"]", std::nullopt, {}}, std::nullopt},
      {"refused by the client",
       {200, "", R"({"uuid":"A"})", Json(Json::value_t::discarded), {}},
       std::nullopt},
      {"parsed by the client", {200, "", "ignored", Json::array({1}), {}}, Json::array({1})},
      {"transport failure", {0, "timed out", R"({"uuid":"A"})", std::nullopt, {}}, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(CloudAPI::replyJson(c.response), c.expected);
  }
}

// Keeps the last request and never answers: the body as built, with no thread in between.
class LastRequestClient : public HttpClient {
 public:
  void send(HttpRequest request, Completion) override { last = std::move(request); }
  HttpRequest last;
};

// GTK and Qt hosts run under their user's locale; the body's numbers must not follow it.
TEST(CloudApiLocale, PlacementsKeepTheirDecimalsUnderACommaLocale) {
  OMRA_UNDER_COMMA_LOCALE(locale);
  auto http = std::make_shared<LastRequestClient>();
  auto device = std::make_shared<FixedDeviceInfo>(FixedDeviceInfo::Values{
      "com.example.host", "12.4", "iPhone10,3", std::nullopt, std::nullopt});
  const std::string o = "http://127.0.0.1:9";
  CloudAPI api(false, "com.example.host", kDevKeyHash,
               {http, device, nullptr, Urls({o, o, o, o, o, o})});
  api.placeAssetOnMap("MAP-1", {MapAsset("chair", Vector3(0.1f, -2.5f, 3.75f), -0.25f)},
                      [](Json) {});
  const std::optional<Json> body = readJson(http->last.body);
  ASSERT_TRUE(body.has_value()) << http->last.body;
  const Json& chair = body->at("placements").at(0);
  EXPECT_EQ(chair.at("x").get<double>(), 0.1);
  EXPECT_EQ(chair.at("y").get<double>(), -2.5);
  EXPECT_EQ(chair.at("z").get<double>(), 3.75);
  EXPECT_EQ(chair.at("orientation").get<double>(), -0.25);
}

TEST(CloudApiParsing, NearbyMapsEntries) {
  const std::string good =
      R"("latitude":1,"longitude":2,"altitude":3,"vertical_accuracy":4,"horizontal_accuracy":5)";
  auto entry = [&](const std::string& ids, const std::string& fields = "") {
    return "{" + ids + "," + (fields.empty() ? good : fields) + "}";
  };
  const std::string u = R"("user_id":"u",)";
  const struct {
    const char* name;
    std::string reply;
    std::vector<std::string> mapIDs;
  } cases[] = {
      {"array", "[" + entry(u + R"("map_id":"a")") + "]", {"a"}},
      {"object values in order",
       R"({"k2":)" + entry(u + R"("map_id":"b")") + R"(,"k1":)" + entry(u + R"("map_id":"a")") +
           "}",
       {"b", "a"}},
      {"null user", "[" + entry(R"("user_id":null,"map_id":"a")") + "]", {}},
      {"numeric map id", "[" + entry(u + R"("map_id":7)") + "]", {}},
      {"number as string",
       "[" + entry(u + R"("map_id":"a")", R"("latitude":"1")" + good.substr(12)) + "]",
       {}},
      {"bool as number",
       "[" + entry(u + R"("map_id":"a")", R"("latitude":true)" + good.substr(12)) + "]",
       {}},
      {"non-object entries skipped",
       R"([1,"x",null,[],)" + entry(u + R"("map_id":"c")") + "]",
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
  EXPECT_EQ(CloudAPI::parseNearbyMaps(Json::parse("[" + entry(u + R"("map_id":"a")") + "]")),
            std::vector<Map>{Map("u", "a", 1, 2, 3, 5, 4)});
}

TEST_F(CloudApiTest, PostMetric) {
  auto metrics = std::make_shared<MemoryMetricsSink>();
  CloudAPI api = makeClient(false, server_.origin(), std::nullopt, "x86_64", metrics);
  api.postMetric(kMetricAssetSaved, std::nullopt, true, true);
  api.postMetric(kMetricTriggerTransformComputeTime, 2.5, false, true);
  api.postMetric(kMetricRelocalizationTimeSU, 1.25, true, false);
  api.postMetric(kMetricRegisterObjectDetectionCallback, std::nullopt, false, false);
  const auto calls = metrics->requests();
  ASSERT_EQ(calls.size(), 3u);
  using Dimensions = std::vector<std::pair<std::string, std::string>>;
  const struct {
    size_t call;
    const char* name;
    const char* unit;
    double value;
    Dimensions dimensions;
  } want[] = {
      {0, "OmraKit.AssetSaved", "Count", 1, {{"devKey", kDevKeyHash}}},
      {0, "OmraKit.AssetSaved", "Count", 1, {}},
      {1, "OmraKit.TriggerTransformComputeTime", "Seconds", 2.5, {}},
      {2, "OmraKit.RelocalizationTime.SU", "Seconds", 1.25, {{"devKey", kDevKeyHash}}},
  };
  size_t index = 0;
  for (const auto& call : calls) EXPECT_EQ(call.nameSpace, "OmraKit");
  for (const auto& w : want) {
    SCOPED_TRACE(w.name);
    const auto& data = calls[w.call].data;
    const size_t i = (w.call == 0) ? index++ : 0;
    ASSERT_EQ(data.size(), w.call == 0 ? 2u : 1u);
    EXPECT_EQ(data[i].metricName, w.name);
    EXPECT_EQ(data[i].unit, w.unit);
    EXPECT_EQ(data[i].value, w.value);
    EXPECT_EQ(data[i].dimensions, w.dimensions);
    EXPECT_GT(data[i].timestamp, 1.6e9);
  }
}

}  // namespace
}  // namespace omra
