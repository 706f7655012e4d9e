// Malformed, oversized, unknown and concurrent requests against a real server: clear 4xx answers,
// nothing stored, and the server keeps serving.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <thread>

#include "omrakit/platform/http_client.h"
#include "server/server.h"
#include "server/server_tables.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/store/memory_record_store.h"

namespace omra::server {
namespace {

const std::string kCreate =
    R"({"app_id":"app","user_id":"u","map_id":"m","developer_key":"k","pod_version":"v0.3.6"})";

// A store whose every operation fails while `broken` is set.
class BreakableStore : public MemoryRecordStore {
 public:
  std::atomic<bool> broken{false};
  std::optional<StoreError> put(const std::string& table, Item item) override {
    if (broken) return StoreError{"disk on fire"};
    return MemoryRecordStore::put(table, std::move(item));
  }
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error) override {
    if (broken) {
      if (error) *error = StoreError{"disk on fire"};
      return std::nullopt;
    }
    return MemoryRecordStore::get(table, key, error);
  }
  QueryPage query(const std::string& table, const AttributeValue& hash,
                  const std::optional<Item>& start, int limit,
                  std::optional<StoreError>* error) override {
    if (broken) {
      if (error) *error = StoreError{"disk on fire"};
      return {};
    }
    return MemoryRecordStore::query(table, hash, start, limit, error);
  }
};

class BadRequestTest : public ::testing::Test {
 protected:
  void start(std::set<std::string> allowed = {}) {
    ServerOptions o;
    o.store = store_;
    o.keepAliveSeconds = 1;
    o.allowedDeveloperKeys = std::move(allowed);
    o.log = [](std::string_view) {};
    server_ = std::make_unique<Server>(o);
    ASSERT_TRUE(server_->start());
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    client_->set_tcp_nodelay(true);
  }
  void SetUp() override { start(); }
  void TearDown() override {
    client_.reset();
    server_->stop();
  }
  size_t storedItems() {
    size_t n = store_->itemCount(TransformResultModel::kTableName);
    for (const TableSchema& t : serverTableSchemas()) n += store_->itemCount(t.name);
    return n;
  }
  // Status and errorMessage of a POST.
  std::pair<int, std::string> post(const std::string& path, const std::string& body) {
    auto res = client_->Post(path.c_str(), body, "application/json");
    if (!res) return {0, "no answer"};
    Json j = Json::parse(res->body, nullptr, false);
    std::string message = j.is_object() ? j.value("errorMessage", "") : "answer is not an object";
    return {res->status, message};
  }

  std::shared_ptr<BreakableStore> store_ = std::make_shared<BreakableStore>();
  std::unique_ptr<Server> server_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(BadRequestTest, MalformedBodiesAnswer400SayingWhatIsWrong) {
  struct Case {
    const char* path;
    std::string body;
    const char* says;
  };
  const std::string loc = R"(,"long":1,"lat":2,"alt":3,"horAccuracy":4)";
  const Case cases[] = {
      {"/prod/maps/create_map", "not json", "not JSON"},
      {"/beta/maps/create_map", "[1,2]", "JSON object"},
      {"/prod/maps/create_map", R"({"app_id":"a","user_id":"u","developer_key":"k"})",
       "Missing key \"map_id\""},
      {"/prod/maps/create_map", R"({"app_id":5,"user_id":"u","map_id":"m","developer_key":"k"})",
       "\"app_id\" must be a string"},
      {"/prod/maps/create_map", kCreate.substr(0, kCreate.size() - 1) + loc + "}", "location"},
      {"/prod/maps/create_map",
       kCreate.substr(0, kCreate.size() - 1) + loc + R"(,"verAccuracy":1e999})", "not JSON"},
      {"/prod/maps/create_map",
       kCreate.substr(0, kCreate.size() - 1) + loc + R"(,"verAccuracy":NaN})", "not JSON"},
      {"/prod/maps/create_map",
       kCreate.substr(0, kCreate.size() - 1) +
           R"(,"long":1,"lat":91,"alt":3,"horAccuracy":4,"verAccuracy":5})",
       "\"lat\""},
      {"/prod/maps/create_localization_session", R"({"app_id":"a"})", "Missing key"},
      {"/prod/maps/create_localization_session",
       kCreate.substr(0, kCreate.size() - 1) + R"(,"use_beta":"yes"})", "\"use_beta\""},
      {"/prod/maps/list_nearby_maps",
       R"({"app_id":"a","longitude":"10","latitude":1,"longitude_delta":1,"latitude_delta":1,"developer_key":"k"})",
       "\"longitude\" must be a number"},
      {"/prod/maps/list_nearby_maps",
       R"({"app_id":"a","longitude":10,"latitude":1,"longitude_delta":1,"latitude_delta":-1,"developer_key":"k"})",
       "must not be negative"},
      {"/prod/maps/place_asset_on_map", R"({"map_uuid":"M","placements":{},"timestamp":1})",
       "\"placements\" must be an array"},
      {"/prod/maps/place_asset_on_map",
       R"({"map_uuid":"M","placements":[{"asset_id":"a","x":1,"y":2,"z":3,"orientation":0},{"asset_id":"b","x":1,"y":2,"z":3}],"timestamp":1})",
       "placements[1] \"orientation\""},
      {"/prod/maps/place_asset_on_map", R"({"map_uuid":"M","placements":[]})", "\"timestamp\""},
      {"/prod/maps/find_assets_on_the_map", R"({"map":"M"})", "\"map_uuid\""},
      {"/prod/full-image-matcher", R"({"uuid":3})", "\"uuid\" must be a string"},
      {"/prod/linear-optimizer/initial_transforms",
       R"({"mapping_session_id":"M","localization_session_id":"S"})", "\"is_seeded\""},
      {"/beta/linear-optimizer/initial_transforms",
       R"({"mapping_session_id":"M","localization_session_id":"S","is_seeded":1})",
       "\"is_seeded\" must be true or false"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + (" " + c.body));
    auto [status, message] = post(c.path, c.body);
    EXPECT_EQ(status, 400);
    EXPECT_NE(message.find(c.says), std::string::npos) << message;
  }
  // Placing on a map that does not exist stores nothing either.
  auto [status, message] = post(
      "/prod/maps/place_asset_on_map",
      R"({"map_uuid":"M","placements":[{"asset_id":"a","x":1,"y":2,"z":3,"orientation":0}],"timestamp":1})");
  EXPECT_EQ(status, 404);
  EXPECT_EQ(message, "Cannot find the map M");
  EXPECT_EQ(storedItems(), 0u);
}

TEST_F(BadRequestTest, QueryParametersRoutesAndSizes) {
  struct Get {
    const char* path;
    int status;
    const char* says;
  };
  const Get gets[] = {
      {"/prod/maps/get_best_transform?localizer=su_localizer", 400, "\"session_id\""},
      {"/prod/maps/get_best_transform?session_id=S", 400, "\"localizer\""},
      {"/prod/maps/get_best_transform?session_id=S&localizer=bogus", 400, "Unknown localizer"},
      {"/prod/maps/create_map", 404, "Unknown route GET /prod/maps/create_map"},
      {"/staging/maps/get_best_transform?session_id=S&localizer=su_localizer", 404,
       "Unknown route"},
  };
  for (const Get& g : gets) {
    SCOPED_TRACE(g.path);
    auto res = client_->Get(g.path);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, g.status);
    Json j = Json::parse(res->body, nullptr, false);
    ASSERT_TRUE(j.is_object());
    EXPECT_NE(j.value("errorMessage", "").find(g.says), std::string::npos) << res->body;
  }
  EXPECT_EQ(post("/prod/maps/delete_map", "{}").first, 404);

  // 1 MiB is accepted; one byte more is a bad request.
  std::string body = kCreate;
  body.insert(1, (1 << 20) - body.size(), ' ');
  ASSERT_EQ(body.size(), size_t{1} << 20);
  EXPECT_EQ(post("/prod/maps/create_map", body).first, 200);
  const size_t stored = storedItems();
  body.insert(1, " ");
  auto [status, message] = post("/prod/maps/create_map", body);
  EXPECT_EQ(status, 400);
  EXPECT_EQ(message, "Request body over 1048576 bytes");
  EXPECT_EQ(storedItems(), stored);
  EXPECT_EQ(post("/prod/maps/create_map", kCreate).first, 200) << "still serving";
}

TEST_F(BadRequestTest, StoreFailureAnswers503AndTheServerRecovers) {
  store_->broken = true;
  for (const char* path : {"/prod/maps/create_map", "/prod/maps/create_localization_session"}) {
    auto [status, message] = post(path, kCreate);
    EXPECT_EQ(status, 503);
    EXPECT_EQ(message, "Store unavailable: disk on fire");
  }
  auto res = client_->Get("/prod/maps/get_best_transform?session_id=S&localizer=su_localizer");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 503);
  store_->broken = false;
  EXPECT_EQ(post("/prod/maps/create_map", kCreate).first, 200);
  EXPECT_EQ(post("/prod/maps/create_localization_session", kCreate).first, 200);
}

TEST_F(BadRequestTest, DeveloperKeyAllowList) {
  TearDown();
  start({"k"});
  EXPECT_EQ(post("/prod/maps/create_map", kCreate).first, 200);
  std::string other = kCreate;
  other.replace(other.find("\"k\""), 3, "\"x\"");
  auto [status, message] = post("/prod/maps/create_map", other);
  EXPECT_EQ(status, 403);
  EXPECT_EQ(message, "Invalid developer key");
  EXPECT_EQ(
      post(
          "/prod/maps/list_nearby_maps",
          R"({"app_id":"app","longitude":0,"latitude":0,"longitude_delta":1,"latitude_delta":1,"developer_key":"x"})")
          .first,
      403);
}

TEST_F(BadRequestTest, ManyConcurrentClientsMixingGoodAndBadRequests) {
  constexpr int kClients = 16, kEach = 20;
  std::atomic<int> wrong{0}, created{0};
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      httplib::Client client("127.0.0.1", server_->port());
      client.set_tcp_nodelay(true);
      for (int i = 0; i < kEach; ++i) {
        const bool good = (i + c) % 3 == 0;
        auto res = client.Post("/prod/maps/create_map",
                               good ? kCreate : "{\"app_id\":", "application/json");
        if (!res || res->status != (good ? 200 : 400)) {
          ++wrong;
          ADD_FAILURE() << (res ? std::to_string(res->status) + " " + res->body
                                : httplib::to_string(res.error()));
        }
        if (good && res && res->status == 200) ++created;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  // Each map is three items (the map and its two lookups).
  EXPECT_EQ(store_->itemCount(kMapsTable), static_cast<size_t>(created.load()));
  EXPECT_EQ(storedItems(), static_cast<size_t>(created.load()) * 3);
}

}  // namespace
}  // namespace omra::server
