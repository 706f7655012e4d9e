#include "tests/e2e/ingest_rig_testutil.h"

#include <httplib.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "omrakit/config.h"
#include "server/server.h"
#include "src/cloud/account_http_client.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/md5.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/record_store_factory.h"
#include "src/platform/store/sqlite_record_store.h"

namespace omra::testing {
namespace {

StoreError outage() { return StoreError{"the disk is unplugged"}; }

}  // namespace

TempFolder::TempFolder(const std::string& name) {
  static std::atomic<int> counter{0};
  path_ = (std::filesystem::temp_directory_path() /
           ("omra-" + name + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++)))
              .string();
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

TempFolder::~TempFolder() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

// --- ForwardingStore ---

std::optional<StoreError> ForwardingStore::createTable(const TableSchema& schema) {
  return inner_->createTable(schema);
}
void ForwardingStore::save(const std::string& table, Item item, SaveCompletion completion) {
  inner_->save(table, std::move(item), std::move(completion));
}
std::optional<StoreError> ForwardingStore::put(const std::string& table, Item item) {
  return inner_->put(table, std::move(item));
}
std::optional<Item> ForwardingStore::get(const std::string& table, const Item& key,
                                         std::optional<StoreError>* error) {
  return inner_->get(table, key, error);
}
QueryPage ForwardingStore::query(const std::string& table, const AttributeValue& hashValue,
                                 const std::optional<Item>& startKey, int limit,
                                 std::optional<StoreError>* error) {
  return inner_->query(table, hashValue, startKey, limit, error);
}
std::optional<StoreError> ForwardingStore::writeBatch(const std::vector<TableItem>& items) {
  return inner_->writeBatch(items);
}
bool ForwardingStore::flush(std::chrono::milliseconds timeout) { return inner_->flush(timeout); }
std::shared_ptr<RecordStore> ForwardingStore::viewForAccount(const std::string& accountDigest) {
  std::shared_ptr<RecordStore> view = storeForAccount(inner_, accountDigest);
  return view == inner_ ? nullptr : view;
}

// --- OutageStore ---

std::optional<StoreError> OutageStore::put(const std::string& table, Item item) {
  if (broken) return outage();
  return ForwardingStore::put(table, std::move(item));
}
std::optional<Item> OutageStore::get(const std::string& table, const Item& key,
                                     std::optional<StoreError>* error) {
  if (broken) {
    if (error != nullptr) *error = outage();
    return std::nullopt;
  }
  return ForwardingStore::get(table, key, error);
}
QueryPage OutageStore::query(const std::string& table, const AttributeValue& hashValue,
                             const std::optional<Item>& startKey, int limit,
                             std::optional<StoreError>* error) {
  if (broken) {
    if (error != nullptr) *error = outage();
    return {};
  }
  return ForwardingStore::query(table, hashValue, startKey, limit, error);
}
std::optional<StoreError> OutageStore::writeBatch(const std::vector<TableItem>& items) {
  if (broken) return outage();
  std::optional<StoreError> e = ForwardingStore::writeBatch(items);
  if (!e && onWritten) onWritten(items);
  return e;
}

// --- CapturingStore ---

void CapturingStore::save(const std::string& table, Item item, SaveCompletion completion) {
  size_t index;
  {
    std::lock_guard lock(log_->mu);
    const auto now = Clock::now();
    if (!log_->started) {
      log_->started = true;
      log_->first = now;
    }
    index = log_->saved.size();
    log_->saved.push_back(
        {std::chrono::duration<double>(now - log_->first).count(), table, item, {}, false});
  }
  ForwardingStore::save(
      table, std::move(item),
      [log = log_, index, completion = std::move(completion)](std::optional<StoreError> e) {
        {
          std::lock_guard lock(log->mu);
          log->saved[index].outcome = e;
          log->saved[index].completed = true;
        }
        if (completion) completion(std::move(e));
      });
}

std::vector<CapturingStore::Saved> CapturingStore::saved() const {
  std::lock_guard lock(log_->mu);
  return log_->saved;
}

std::shared_ptr<RecordStore> CapturingStore::viewForAccount(const std::string& accountDigest) {
  return std::shared_ptr<CapturingStore>(
      new CapturingStore(storeForAccount(inner(), accountDigest), log_));
}

// --- RecordingHttpClient ---

void RecordingHttpClient::send(HttpRequest request, Completion completion) {
  const auto sent = Clock::now();
  const size_t bytes = request.body.size();
  inner_->send(std::move(request), [state = state_, sent, bytes,
                                    completion = std::move(completion)](HttpResponse response) {
    Exchange x;
    x.sent = sent;
    x.answered = Clock::now();
    x.status = response.status;
    x.bodyBytes = bytes;
    if (auto it = response.headers.find("retry-after"); it != response.headers.end()) {
      long seconds = 0;
      if (std::sscanf(it->second.c_str(), "%ld", &seconds) == 1) x.retryAfterSeconds = seconds;
    }
    std::function<void(const Exchange&)> onAnswer;
    {
      std::lock_guard lock(state->mu);
      state->exchanges.push_back(x);
      onAnswer = state->onAnswer;
    }
    if (onAnswer) onAnswer(x);
    completion(std::move(response));
  });
}

void RecordingHttpClient::setOnAnswer(std::function<void(const Exchange&)> onAnswer) {
  std::lock_guard lock(state_->mu);
  state_->onAnswer = std::move(onAnswer);
}

std::vector<Exchange> RecordingHttpClient::exchanges() const {
  std::lock_guard lock(state_->mu);
  return state_->exchanges;
}

std::string accountDigest(const std::string& n) { return md5Hex("developer key of " + n); }

// --- IngestServer ---

IngestServer::IngestServer(std::string dir, Options options)
    : dir_(std::move(dir)), path_(dir_ + "/server.db"), options_(std::move(options)) {}

IngestServer::~IngestServer() { stop(); }

bool IngestServer::start(std::string* error) {
  if (server_) return true;
  std::shared_ptr<SqliteRecordStore> sqlite = SqliteRecordStore::open(path_, error);
  if (!sqlite) return false;
  store_ = std::make_shared<OutageStore>(std::move(sqlite));
  store_->onWritten = options_.onWritten;
  // A port just closed may linger for a moment.
  std::unique_ptr<server::Server> server;
  for (int attempt = 0;; ++attempt) {
    server::ServerOptions o;
    o.port = port_;
    o.store = store_;
    o.quotas = options_.quotas;
    o.httpThreads = options_.httpThreads;
    o.logRequests = static_cast<bool>(options_.log);
    o.log = options_.log ? options_.log : [](std::string_view) {};
    server = std::make_unique<server::Server>(std::move(o));
    if (server->start(error)) break;
    if (port_ == 0 || attempt >= 50) {
      store_.reset();
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  port_ = server->port();
  server_ = std::move(server);
  return true;
}

void IngestServer::stop() {
  if (!server_) return;
  server_->stop();
  server_.reset();
  store_.reset();
}

std::string IngestServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::optional<std::string> IngestServer::createMap(const std::string& account,
                                                   const std::string& mapId, std::string* error) {
  httplib::Client client("127.0.0.1", port_);
  client.set_connection_timeout(5);
  client.set_read_timeout(10);
  const Json body{{"app_id", "com.example.app"}, {"user_id", "ana"},        {"map_id", mapId},
                  {"developer_key", account},    {"pod_version", "v0.3.6"}, {"data_version", "1"}};
  httplib::Headers headers{{kAccountHeader, account}};
  auto res = client.Post("/prod/maps/create_map", headers, body.dump(), "application/json");
  if (!res || res->status != 200) {
    if (error != nullptr) {
      *error = res ? "create_map answered " + std::to_string(res->status) + ": " + res->body
                   : "create_map got no answer";
    }
    return std::nullopt;
  }
  const Json answer = Json::parse(res->body, nullptr, false);
  if (!answer.is_object() || !answer.contains("uuid") || !answer["uuid"].is_string()) {
    if (error != nullptr) *error = "create_map answered without a uuid: " + res->body;
    return std::nullopt;
  }
  return answer["uuid"].get<std::string>();
}

std::optional<StoredRecords> IngestServer::recordsOf(const std::string& session,
                                                     std::string* error) {
  if (!store_) {
    if (error != nullptr) *error = "the store is closed";
    return std::nullopt;
  }
  StoredRecords out;
  for (const TableSchema& t : kitRecordTableSchemas()) {
    std::optional<StoreError> e;
    std::vector<Item> items = queryAll(*store_, t.name, AttributeValue::string(session), &e);
    if (e) {
      if (error != nullptr) *error = t.name + ": " + e->message;
      return std::nullopt;
    }
    for (Item& item : items) {
      std::optional<int64_t> id;
      if (!readInteger(item, kRecordIdAttribute, id) || !id) {
        if (error != nullptr) *error = t.name + " holds an item without a RecordId";
        return std::nullopt;
      }
      out[t.name][*id] = std::move(item);
    }
  }
  return out;
}

// --- devices ---

DeviceKit::~DeviceKit() {
  records.reset();        // delivers what it can within its close time, keeps the rest
  stopHttpFirst.reset();  // no completion is posted once the dispatcher goes
  http.reset();
  dispatcher.reset();
}

std::unique_ptr<DeviceKit> openDeviceKit(const std::string& backendUrl,
                                         const std::string& outboxPath, std::string* error,
                                         double httpIdleSeconds) {
  auto kit = std::make_unique<DeviceKit>();
  kit->dispatcher = std::make_shared<AsioDispatcher>();
  CurlHttpOptions httpOptions;
  httpOptions.idleTimeoutSeconds = httpIdleSeconds;
  auto curl = std::make_shared<CurlHttpClient>(*kit->dispatcher, httpOptions);
  kit->stopHttpFirst =
      std::shared_ptr<void>(nullptr, [raw = curl.get()](void*) { raw->shutdown(); });
  kit->http = std::make_shared<RecordingHttpClient>(curl);
  kit->logger = std::make_shared<MemoryLogger>();
  kit->records = openKitRecordStore(backendUrl, outboxPath, kit->http, kit->dispatcher, kit->logger,
                                    Config{}.recordFlushTimeoutSeconds, error);
  if (!kit->records) return nullptr;
  return kit;
}

std::shared_ptr<RecordStore> openKitRecordStore(const std::string& backendUrl,
                                                const std::string& outboxPath,
                                                std::shared_ptr<HttpClient> http,
                                                std::shared_ptr<Dispatcher> dispatcher,
                                                std::shared_ptr<Logger> logger,
                                                double flushTimeoutSeconds, std::string* error) {
  Config config;
  config.recordStore = "backend:" + backendUrl + "/prod";
  config.recordOutbox = outboxPath;
  config.recordFlushTimeoutSeconds = flushTimeoutSeconds;
  KitStoreServices services{std::move(http), dispatcher, kitRecordTableSchemas(), kAccountHeader};
  return makeRecordStore(config, services, std::move(logger), error);
}

std::optional<std::vector<RecordKey>> outboxRows(const std::string& outboxPath,
                                                 std::string* error) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(outboxPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    if (error != nullptr) *error = db != nullptr ? sqlite3_errmsg(db) : "cannot open";
    sqlite3_close(db);
    return std::nullopt;
  }
  std::vector<RecordKey> out;
  sqlite3_stmt* s = nullptr;
  bool ok = sqlite3_prepare_v2(db, "SELECT record_table, item FROM records ORDER BY id", -1, &s,
                               nullptr) == SQLITE_OK;
  int rc = SQLITE_DONE;
  while (ok && (rc = sqlite3_step(s)) == SQLITE_ROW) {
    const std::string table = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
    const Json item =
        Json::parse(reinterpret_cast<const char*>(sqlite3_column_text(s, 1)), nullptr, false);
    std::optional<Item> parsed = item.is_object() ? itemFromJson(item, nullptr) : std::nullopt;
    std::optional<std::string> session;
    std::optional<int64_t> id;
    if (!parsed || !readString(*parsed, "SessionId", session) || !session ||
        !readInteger(*parsed, kRecordIdAttribute, id) || !id) {
      ok = false;
      break;
    }
    out.push_back({table, *session, *id});
  }
  ok = ok && rc == SQLITE_DONE;
  if (!ok && error != nullptr) *error = std::string("unreadable outbox: ") + sqlite3_errmsg(db);
  sqlite3_finalize(s);
  sqlite3_close(db);
  if (!ok) return std::nullopt;
  return out;
}

std::vector<RecordKey> keysOf(const StoredRecords& stored, const std::string& session) {
  std::vector<RecordKey> out;
  for (const auto& [table, items] : stored) {
    for (const auto& [id, item] : items) out.push_back({table, session, id});
  }
  return out;
}

std::vector<TableItem> fiveTableRecords(const std::string& session, int64_t first, size_t n) {
  std::vector<TableItem> out;
  for (size_t i = 0; i < n; ++i) {
    const int64_t id = first + static_cast<int64_t>(i);
    const int64_t frame = id / 5;
    Item item;
    switch (i % 5) {
      case 0: {
        std::vector<double> features(128);
        for (size_t k = 0; k < features.size(); ++k) features[k] = static_cast<double>(k + i) / 64;
        out.push_back({ImageFeaturesModel::kTableName,
                       ImageFeaturesModel(session, frame, features).toItem()});
        break;
      }
      case 1:
        out.push_back({SceneUnderstandingModel::kTableName,
                       SceneUnderstandingModel(session, frame, 0.5f, 0.25f, 2.0f, "chair", 0.9f,
                                               id % 7, false)
                           .toItem()});
        break;
      case 2:
        out.push_back(
            {DetectedPlaneModel::kTableName,
             DetectedPlaneModel(session, frame, "PLANE-" + std::to_string(id % 3), "horizontal",
                                "0.1,0.0,0.2", false, "1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1", false)
                 .toItem()});
        break;
      case 3:
        out.push_back(
            {CameraPathModel::kTableName,
             CameraPathModel(session, frame,
                             {{std::to_string(frame), "1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1,"}})
                 .toItem()});
        break;
      default:
        out.push_back({PointCloudModel::kTableName,
                       PointCloudModel(session, frame, {{frame, {12, 13}}},
                                       {{12, {0.5f, -1.25f, 2.0f}}, {13, {0.25f, 1.0f, 2.5f}}})
                           .toItem()});
        break;
    }
    out.back().item = withRecordId(std::move(out.back().item), id);
  }
  return out;
}

bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!pred()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace omra::testing
