#include "tests/session/session_testutil.h"

#include <httplib.h>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/record_tables.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/fixed_device_info.h"

namespace omra {

ScriptedBackend::ScriptedBackend() : server_(std::make_unique<httplib::Server>()) {
  reply("/maps/create_map", R"({"uuid":"MAP-1"})");
  reply("/maps/create_localization_session", R"({"session_uuid":"LOC-1","map_uuid":"MAP-1"})");
  reply("/maps/find_assets_on_the_map", R"({"placements":[]})");
  reply("/maps/place_asset_on_map", R"({"placement_id":"P-1"})");
  reply("/maps/list_nearby_maps", "[]");
  reply("/maps/get_best_transform", "{}");
  reply("/full-image-matcher", R"({"status":"queued"})");
  reply("/linear-optimizer/initial_transforms", R"({"status":"queued"})");

  auto route = [this](const httplib::Request& req, httplib::Response& res) {
    // Strip the stage ("/beta" or "/prod").
    std::string path = req.path;
    for (const char* stage : {"/beta", "/prod"}) {
      if (path.rfind(stage, 0) == 0) path = path.substr(std::string(stage).size());
    }
    std::string query;
    for (const auto& [key, value] : req.params) {
      if (!query.empty()) query += '&';
      query += key + "=" + value;
    }
    Request request{path, query, Json()};
    Json parsed = Json::parse(req.body, nullptr, false);
    if (!parsed.is_discarded()) request.body = std::move(parsed);
    Handler handler;
    std::chrono::milliseconds delay;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      auto it = handlers_.find(path);
      if (it != handlers_.end()) handler = it->second;
      delay = delay_;
    }
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    const Reply reply = handler ? handler(request) : Reply{404, ""};
    res.status = reply.status;
    res.set_content(reply.body, "application/json");
  };
  server_->Get(".*", route);
  server_->Post(".*", route);
  port_ = server_->bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // A stop() before the accept loop runs would be lost and the join would hang.
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

ScriptedBackend::~ScriptedBackend() {
  server_->stop();
  thread_.join();
}

EndpointHosts ScriptedBackend::hosts() const {
  const std::string base = "http://127.0.0.1:" + std::to_string(port_);
  return {base, base, base, base, base, base};
}

void ScriptedBackend::on(const std::string& path, Handler handler) {
  std::lock_guard lock(mutex_);
  handlers_[path] = std::move(handler);
}

void ScriptedBackend::reply(const std::string& path, const std::string& body) {
  on(path, [body](const Request&) { return Reply{200, body}; });
}

void ScriptedBackend::setDelay(std::chrono::milliseconds delay) {
  std::lock_guard lock(mutex_);
  delay_ = delay;
}

std::vector<ScriptedBackend::Request> ScriptedBackend::requests(const std::string& path) const {
  std::lock_guard lock(mutex_);
  std::vector<Request> matching;
  for (const Request& r : requests_) {
    if (r.path == path) matching.push_back(r);
  }
  return matching;
}

GatedRecordStore::GatedRecordStore() { ensureRecordTables(*this); }

void GatedRecordStore::save(const std::string& table, Item item, SaveCompletion completion) {
  std::chrono::milliseconds delay;
  {
    std::unique_lock lock(gateMutex_);
    ++waiting_;
    cv_.wait(lock, [&] { return !closed_; });
    --waiting_;
    delay = delay_;
  }
  if (delay.count() > 0) std::this_thread::sleep_for(delay);
  MemoryRecordStore::save(table, std::move(item), std::move(completion));
}

void GatedRecordStore::close() {
  std::lock_guard lock(gateMutex_);
  closed_ = true;
}

void GatedRecordStore::open() {
  {
    std::lock_guard lock(gateMutex_);
    closed_ = false;
  }
  cv_.notify_all();
}

void GatedRecordStore::setDelay(std::chrono::milliseconds delay) {
  std::lock_guard lock(gateMutex_);
  delay_ = delay;
}

int GatedRecordStore::waiting() const {
  std::lock_guard lock(gateMutex_);
  return waiting_;
}

bool GatedRecordStore::flush(std::chrono::milliseconds timeout) {
  const size_t saved = itemCount(CameraPathModel::kTableName);
  std::lock_guard lock(gateMutex_);
  flushes_.push_back({timeout, saved});
  return flushResult_;
}

std::vector<GatedRecordStore::FlushCall> GatedRecordStore::flushes() const {
  std::lock_guard lock(gateMutex_);
  return flushes_;
}

void GatedRecordStore::setFlushResult(bool result) {
  std::lock_guard lock(gateMutex_);
  flushResult_ = result;
}

std::vector<Item> GatedRecordStore::items(const std::string& table, const std::string& sessionId) {
  return queryAll(*this, table, AttributeValue::string(sessionId));
}

TestEnv::TestEnv()
    : mainQueue(std::make_shared<ManualMainQueue>()),
      logger(std::make_shared<MemoryLogger>()),
      metrics(std::make_shared<MemoryMetricsSink>()),
      store(std::make_shared<GatedRecordStore>()) {
  auto dispatcher = std::make_shared<AsioDispatcher>(2);
  dispatcher->installMainQueue(mainQueue);
  env.dispatcher = dispatcher;
  env.http = std::make_shared<CurlHttpClient>(*dispatcher);
  env.logger = logger;
  env.device = std::make_shared<FixedDeviceInfo>();
  env.metrics = metrics;
  env.records = store;
}

TestEnv::~TestEnv() {
  store->open();
  // Requests in flight hold the HTTP client until their completions ran on the main queue: let
  // them finish before the dispatcher goes.
  std::weak_ptr<HttpClient> http = env.http;
  env.http.reset();
  mainQueue->runUntil([&] { return http.expired(); }, std::chrono::milliseconds(10000));
  env = Env{};
}

bool TestEnv::pumpUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  return mainQueue->runUntil(pred, timeout);
}

void TestEnv::pumpFor(std::chrono::milliseconds duration) {
  mainQueue->runUntil([] { return false; }, duration);
}

}  // namespace omra
