// Malformed, oversized, unknown and concurrent requests against a real server: clear 4xx answers,
// nothing stored, and the server keeps serving.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <thread>

#include "omrakit/platform/http_client.h"
#include "server/server.h"
#include "server/server_tables.h"
#include "src/cloud/account_http_client.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/store/memory_record_store.h"

namespace omra::server {
namespace {

// The account every request here acts for, and the body key that names it.
const std::string kAccount = "0123456789abcdef0123456789abcdef";
const std::string kKey = R"("developer_key":")" + kAccount + "\"";

const std::string kCreate =
    R"({"app_id":"app","user_id":"u","map_id":"m",)" + kKey + R"(,"pod_version":"v0.3.6"})";

// A nearby-maps request short of its last two keys.
const std::string kNearby = R"({"app_id":"app","longitude":10,"latitude":1,"longitude_delta":1,)";

// kCreate with more keys added.
std::string createWith(const std::string& extra) {
  return kCreate.substr(0, kCreate.size() - 1) + extra + "}";
}

// A store whose every operation fails while `broken` is set.
class BreakableStore : public MemoryRecordStore {
 public:
  std::atomic<bool> broken{false};
  std::optional<StoreError> put(const std::string& table, Item item) override {
    if (broken) return StoreError{"disk on fire"};
    return MemoryRecordStore::put(table, std::move(item));
  }
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override {
    if (broken) return StoreError{"disk on fire"};
    return MemoryRecordStore::writeBatch(items);
  }
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error) override {
    return failed(error) ? std::nullopt : MemoryRecordStore::get(table, key, error);
  }
  QueryPage query(const std::string& table, const AttributeValue& hash,
                  const std::optional<Item>& start, int limit,
                  std::optional<StoreError>* error) override {
    return failed(error) ? QueryPage{} : MemoryRecordStore::query(table, hash, start, limit, error);
  }

 private:
  bool failed(std::optional<StoreError>* error) {
    if (broken && error) *error = StoreError{"disk on fire"};
    return broken;
  }
};

class BadRequestTest : public ::testing::Test {
 protected:
  void start(std::set<std::string> allowed = {}, QuotaOptions quotas = {}) {
    ServerOptions o;
    o.store = store_;
    o.keepAliveSeconds = 1;
    o.allowedDeveloperKeys = std::move(allowed);
    o.quotas = quotas;
    o.log = [](std::string_view) {};
    server_ = std::make_unique<Server>(o);
    ASSERT_TRUE(server_->start());
    client_ = client();
  }
  std::unique_ptr<httplib::Client> client() {
    auto c = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    c->set_tcp_nodelay(true);
    c->set_default_headers({{kAccountHeader, kAccount}});
    return c;
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
  // Status and errorMessage of an answer.
  static std::pair<int, std::string> answer(const httplib::Result& res) {
    if (!res) return {0, "no answer"};
    Json j = Json::parse(res->body, nullptr, false);
    return {res->status, j.is_object() ? j.value("errorMessage", "") : "answer is not an object"};
  }
  std::pair<int, std::string> post(const std::string& path, const std::string& body) {
    return answer(client_->Post(path.c_str(), body, "application/json"));
  }
  std::pair<int, std::string> get(const std::string& path) {
    return answer(client_->Get(path.c_str()));
  }

  std::shared_ptr<BreakableStore> store_ = std::make_shared<BreakableStore>();
  std::unique_ptr<Server> server_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(BadRequestTest, BadBodiesParametersAndRoutesAnswer4xxSayingWhatIsWrong) {
  struct Case {
    std::string path;
    std::optional<std::string> body;  // none: a GET
    int status;
    const char* says;
  };
  const std::string m = "/prod/maps/", loc = R"(,"long":1,"lat":2,"alt":3,"horAccuracy":4)";
  const std::string best = m + "get_best_transform?";
  const Case cases[] = {
      {m + "create_map", "not json", 400, "not JSON"},
      {"/beta/maps/create_map", "[1,2]", 400, "JSON object"},
      {m + "create_map", R"({"app_id":"a","user_id":"u",)" + kKey + "}", 400,
       "Missing key \"map_id\""},
      {m + "create_map", R"({"app_id":5,"user_id":"u","map_id":"m",)" + kKey + "}", 400,
       "\"app_id\" must be a string"},
      // An item the store cannot take is the client's doing.
      {m + "create_map",
       R"({"app_id":"app","user_id":"u",)" + kKey + R"(,"map_id":")" +
           std::string(500 * 1024, 'm') + "\"}",
       400, kItemTooLargeMessage},
      {m + "place_asset_on_map",
       R"({"map_uuid":"M","placements":[{"asset_id":")" + std::string(2000, 'a') +
           R"(","x":1,"y":2,"z":3,"orientation":0}],"timestamp":1})",
       400, "placements[0] \"asset_id\" is over 1024 bytes"},
      {m + "create_map", createWith(loc), 400, "location"},
      {m + "create_map", createWith(loc + R"(,"verAccuracy":1e999)"), 400, "not JSON"},
      {m + "create_map", createWith(loc + R"(,"verAccuracy":NaN)"), 400, "not JSON"},
      {m + "create_map",
       createWith(R"(,"long":1,"lat":91,"alt":3,"horAccuracy":4,"verAccuracy":5)"), 400, "\"lat\""},
      {m + "create_localization_session", R"({"app_id":"a"})", 400, "Missing key"},
      {m + "create_localization_session", createWith(R"(,"use_beta":"yes")"), 400, "\"use_beta\""},
      {m + "list_nearby_maps",
       R"({"app_id":"a","longitude":"10","latitude":1,"longitude_delta":1,"latitude_delta":1,)" +
           kKey + "}",
       400, "\"longitude\" must be a number"},
      {m + "list_nearby_maps", kNearby + R"("latitude_delta":-1,)" + kKey + "}", 400,
       "must not be negative"},
      {m + "place_asset_on_map", R"({"map_uuid":"M","placements":{},"timestamp":1})", 400,
       "\"placements\" must be an array"},
      {m + "place_asset_on_map",
       R"({"map_uuid":"M","placements":[{"asset_id":"a","x":1,"y":2,"z":3,"orientation":0},{"asset_id":"b","x":1,"y":2,"z":3}],"timestamp":1})",
       400, "placements[1] \"orientation\""},
      {m + "place_asset_on_map", R"({"map_uuid":"M","placements":[]})", 400, "\"timestamp\""},
      // A well-formed placement on a map that does not exist.
      {m + "place_asset_on_map",
       R"({"map_uuid":"M","placements":[{"asset_id":"a","x":1,"y":2,"z":3,"orientation":0}],"timestamp":1})",
       404, "Cannot find the map M"},
      {m + "find_assets_on_the_map", R"({"map":"M"})", 400, "\"map_uuid\""},
      {"/prod/full-image-matcher", R"({"uuid":3})", 400, "\"uuid\" must be a string"},
      {"/prod/linear-optimizer/initial_transforms",
       R"({"mapping_session_id":"M","localization_session_id":"S"})", 400, "\"is_seeded\""},
      {"/beta/linear-optimizer/initial_transforms",
       R"({"mapping_session_id":"M","localization_session_id":"S","is_seeded":1})", 400,
       "\"is_seeded\" must be true or false"},
      {best + "localizer=su_localizer", {}, 400, "\"session_id\""},
      {best + "session_id=S", {}, 400, "\"localizer\""},
      {best + "session_id=S&localizer=bogus", {}, 400, "Unknown localizer"},
      {m + "create_map", {}, 405, "Use POST for /maps/create_map"},
      {"/staging/maps/get_best_transform?session_id=S&localizer=su_localizer",
       {},
       404,
       "Unknown route"},
      {m + "delete_map", "{}", 404, "Unknown route"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + " " + c.body.value_or("GET"));
    auto [status, message] = c.body ? post(c.path, *c.body) : get(c.path);
    EXPECT_EQ(status, c.status);
    EXPECT_NE(message.find(c.says), std::string::npos) << message;
  }
  EXPECT_EQ(storedItems(), 0u);
}

TEST_F(BadRequestTest, BodiesOverOneMebibyteAreRefused) {
  std::string body = kCreate;
  body.insert(1, (1 << 20) - body.size(), ' ');
  ASSERT_EQ(body.size(), size_t{1} << 20);
  EXPECT_EQ(post("/prod/maps/create_map", body).first, 200);
  const size_t stored = storedItems();
  body.insert(1, " ");
  EXPECT_EQ(post("/prod/maps/create_map", body),
            std::make_pair(400, std::string("Request body over 1048576 bytes")));
  EXPECT_EQ(storedItems(), stored);
  EXPECT_EQ(post("/prod/maps/create_map", kCreate).first, 200) << "still serving";
}

TEST_F(BadRequestTest, StoreFailureAnswers503AndTheServerRecovers) {
  store_->broken = true;
  for (const char* path : {"/prod/maps/create_map", "/prod/maps/create_localization_session"}) {
    EXPECT_EQ(post(path, kCreate),
              std::make_pair(503, std::string("Store unavailable: disk on fire")));
  }
  EXPECT_EQ(get("/prod/maps/get_best_transform?session_id=S&localizer=su_localizer").first, 503);
  store_->broken = false;
  EXPECT_EQ(post("/prod/maps/create_map", kCreate).first, 200);
  EXPECT_EQ(post("/prod/maps/create_localization_session", kCreate).first, 200);
}

// Over HTTP: the header reaches the routes, the allow-list and the 429's Retry-After come back.
TEST_F(BadRequestTest, AccountHeaderAllowListAndQuotaOverHttp) {
  TearDown();
  start({kAccount});
  EXPECT_EQ(post("/prod/maps/create_map", kCreate).first, 200);
  const std::string other = "fedcba9876543210fedcba9876543210";
  auto res = client_->Post("/prod/maps/create_map", {{kAccountHeader, other}}, kCreate,
                           "application/json");
  EXPECT_EQ(answer(res), std::make_pair(403, std::string("Invalid developer key")));
  httplib::Client bare("127.0.0.1", server_->port());
  EXPECT_EQ(answer(bare.Post("/prod/maps/create_map", kCreate, "application/json")),
            std::make_pair(401, std::string("Missing or malformed X-Omra-Account header")));

  TearDown();
  start({}, QuotaOptions{0.001, 1, 0, 0});
  EXPECT_EQ(post("/prod/maps/create_map", kCreate).first, 200);
  res = client_->Post("/prod/maps/create_map", kCreate, "application/json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 429);
  EXPECT_EQ(res->get_header_value("Retry-After"), "1000");
}

TEST_F(BadRequestTest, ManyConcurrentClientsMixingGoodAndBadRequests) {
  constexpr int kClients = 16, kEach = 20;
  std::atomic<int> created{0};
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      auto client = this->client();
      for (int i = 0; i < kEach; ++i) {
        const bool good = (i + c) % 3 == 0;
        auto res = client->Post("/prod/maps/create_map",
                                good ? kCreate : "{\"app_id\":", "application/json");
        if (!res || res->status != (good ? 200 : 400)) {
          ADD_FAILURE() << (res ? std::to_string(res->status) + " " + res->body
                                : httplib::to_string(res.error()));
        } else if (good) {
          ++created;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  // Each map is three items (the map and its two lookups; no location, so no index entries),
  // and the account's mark that its index is complete.
  ASSERT_GT(created.load(), 0);
  EXPECT_EQ(store_->itemCount(kMapsTable), static_cast<size_t>(created.load()));
  EXPECT_EQ(store_->itemCount(kNearbyIndexedTable), 1u);
  EXPECT_EQ(storedItems(), static_cast<size_t>(created.load()) * 3 + 1);
}

}  // namespace
}  // namespace omra::server
