#include "tests/mapping/mapping_testutil.h"

#include "src/cloud/record_tables.h"
#include "src/foundation/json_reader.h"

namespace omra {

void ScriptedHttpClient::send(HttpRequest request, Completion completion) {
  SeenRequest seen{request.method, request.url, Json()};
  if (!request.body.empty()) {
    if (std::optional<Json> parsed = readJson(request.body)) seen.body = std::move(*parsed);
  }
  Handler handler;
  RawHandler rawHandler;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(seen);
    handler = handler_;
    rawHandler = rawHandler_;
  }
  HttpResponse response;
  if (rawHandler) {
    if (std::optional<std::string> raw = rawHandler(seen)) {
      response.status = 200;
      response.body = std::move(*raw);
      if (!response.body.empty()) {
        response.json = readJson(response.body).value_or(Json(Json::value_t::discarded));
      }
    } else {
      response.transportError = "Connection refused";
    }
    main_.post([completion = std::move(completion), response = std::move(response)] {
      completion(response);
    });
    return;
  }
  std::optional<Json> answer = handler ? handler(seen) : std::nullopt;
  if (answer) {
    response.status = 200;
    response.body = answer->dump();
    response.json = *answer;
  } else {
    response.transportError = "Connection refused";
  }
  main_.post([completion = std::move(completion), response = std::move(response)] {
    completion(response);
  });
}

void ScriptedHttpClient::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void ScriptedHttpClient::setRawHandler(RawHandler handler) {
  std::lock_guard lock(mutex_);
  rawHandler_ = std::move(handler);
}

std::vector<SeenRequest> ScriptedHttpClient::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<SeenRequest> ScriptedHttpClient::requestsTo(const std::string& needle) const {
  std::vector<SeenRequest> matching;
  for (const SeenRequest& r : requests()) {
    if (r.url.find(needle) != std::string::npos) matching.push_back(r);
  }
  return matching;
}

MappingHarness::MappingHarness(SessionMode m)
    : mode(m),
      mainQueue(std::make_shared<ManualMainQueue>()),
      dispatcher(std::make_shared<AsioDispatcher>(2)),
      logger(std::make_shared<MemoryLogger>()),
      metrics(std::make_shared<MemoryMetricsSink>()),
      store(std::make_shared<MemoryRecordStore>()),
      device(std::make_shared<FixedDeviceInfo>()) {
  dispatcher->installMainQueue(mainQueue);
  http = std::make_shared<ScriptedHttpClient>(*mainQueue);
  ensureRecordTables(*store);
  EndpointHosts hosts;
  hosts.mapsProd = "http://maps.test";
  hosts.imageMatcherProd = "http://matcher.test";
  hosts.linearOptimizerProd = "http://optimizer.test";
  cloudApi = std::make_shared<CloudAPI>(false, "com.example.host", "0123456789abcdef",
                                        CloudServices{http, device, metrics, Urls(hosts)});
  state = std::make_shared<SessionState>(
      mode, "0123456789abcdef", cloudApi, std::chrono::system_clock::now(),
      [this](MapStatus s) {
        std::lock_guard lock(mutex_);
        statuses_.push_back(s);
      },
      [this](std::vector<MapAsset> assets) {
        std::lock_guard lock(mutex_);
        assetsFound_.push_back(std::move(assets));
      });
  dataManager = DataManager::create({cloudApi, logger, dispatcher.get(), nullptr}, mode,
                                    {"com.example.host", "user-1", "map-1"});
  state->setDataManager(dataManager);
}

MappingHarness::~MappingHarness() {
  // Let queued work finish before the services it uses go away.
  dataManager.reset();
  state.reset();
  dispatcher.reset();
}

MapStatus MappingHarness::open(std::optional<Json> createReply) {
  http->setHandler([this, createReply](const SeenRequest& r) -> std::optional<Json> {
    if (r.url.find("/create_") != std::string::npos) return createReply;
    if (r.url.find("/find_assets_on_the_map") != std::string::npos) return findAssetsReply;
    if (otherReplies) return otherReplies(r);
    return Json::object();
  });
  const size_t before = statuses().size();
  auto status = [this](MapStatus s) { state->statusCallback()(s); };
  if (mode == SessionMode::mapping) {
    dataManager->setMappingMode(status);
  } else {
    dataManager->setLocalizationMode(status);
  }
  pumpUntil([&] { return statuses().size() > before; });
  // The localization answer also fetches the stored assets: let that arrive too.
  pumpFor(std::chrono::milliseconds(20));
  return statuses().back();
}

bool MappingHarness::pumpUntil(const std::function<bool()>& pred,
                               std::chrono::milliseconds timeout) {
  return mainQueue->runUntil(pred, timeout);
}

void MappingHarness::pumpFor(std::chrono::milliseconds duration) {
  mainQueue->runUntil([] { return false; }, duration);
}

std::vector<Item> MappingHarness::records(const std::string& table) const {
  std::optional<std::string> id = state->currentSessionIdentifier();
  if (!id) return {};
  return queryAll(*store, table, AttributeValue::string(*id));
}

std::vector<std::string> MappingHarness::metricNames() const {
  std::vector<std::string> names;
  for (const MetricDatum& d : metrics->data()) names.push_back(d.metricName);
  return names;
}

std::vector<MapStatus> MappingHarness::statuses() const {
  std::lock_guard lock(mutex_);
  return statuses_;
}

std::vector<std::vector<MapAsset>> MappingHarness::assetsFound() const {
  std::lock_guard lock(mutex_);
  return assetsFound_;
}

}  // namespace omra
