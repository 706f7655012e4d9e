// Shared set-up for the mapping tests: a scripted HTTP client, in-memory services and a session
// state with its data manager, all on a real dispatcher whose main queue the test pumps.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/map_asset.h"
#include "omrakit/map_status.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/session_mode.h"
#include "src/cloud/cloud_api.h"
#include "src/mapping/data_manager.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/fixed_device_info.h"
#include "src/platform/manual_main_queue.h"
#include "src/platform/memory_logger.h"
#include "src/platform/memory_metrics_sink.h"
#include "src/platform/store/memory_record_store.h"
#include "src/session/session_state.h"

namespace omra {

// One request as the client saw it.
struct SeenRequest {
  HttpMethod method;
  std::string url;
  Json body;  // null when the body is empty or not JSON
};

// Answers each request through a handler; the completion is posted to the main queue, as the real
// client does. Thread-safe.
class ScriptedHttpClient : public HttpClient {
 public:
  // No value: the request fails in transport ("connection refused").
  using Handler = std::function<std::optional<Json>(const SeenRequest&)>;

  // Answers with raw body bytes, read as the libcurl client reads them (a refused body is marked).
  // Takes precedence over the Json handler while set. No value: transport failure.
  using RawHandler = std::function<std::optional<std::string>(const SeenRequest&)>;

  explicit ScriptedHttpClient(MainQueue& mainQueue) : main_(mainQueue) {}
  void send(HttpRequest request, Completion completion) override;
  void setHandler(Handler handler);
  void setRawHandler(RawHandler handler);
  std::vector<SeenRequest> requests() const;
  // Requests whose URL contains needle.
  std::vector<SeenRequest> requestsTo(const std::string& needle) const;

 private:
  MainQueue& main_;
  mutable std::mutex mutex_;
  Handler handler_;
  RawHandler rawHandler_;
  std::vector<SeenRequest> requests_;
};

// A session's state and data manager over in-memory services. The test thread is the main thread.
class MappingHarness {
 public:
  explicit MappingHarness(SessionMode mode);
  ~MappingHarness();

  // Opens the session with the given create answer (none: connection refused) and waits for its
  // status. The find-assets answer is served from findAssetsReply.
  MapStatus open(std::optional<Json> createReply);
  void setReadyNow() { state->setReadyTime(std::chrono::system_clock::now()); }

  // Pumps the main queue until pred() or the timeout.
  bool pumpUntil(const std::function<bool()>& pred,
                 std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));
  // Pumps what is queued now and what it queues, for a short while.
  void pumpFor(std::chrono::milliseconds duration);

  // Items of a record table for the current session.
  std::vector<Item> records(const std::string& table) const;
  std::vector<std::string> metricNames() const;

  SessionMode mode;
  std::shared_ptr<ManualMainQueue> mainQueue;
  std::shared_ptr<AsioDispatcher> dispatcher;
  std::shared_ptr<ScriptedHttpClient> http;
  std::shared_ptr<MemoryLogger> logger;
  std::shared_ptr<MemoryMetricsSink> metrics;
  std::shared_ptr<MemoryRecordStore> store;
  std::shared_ptr<FixedDeviceInfo> device;
  std::shared_ptr<CloudAPI> cloudApi;
  std::shared_ptr<SessionState> state;
  std::shared_ptr<DataManager> dataManager;

  // What the back end answers besides the create request.
  Json findAssetsReply = Json::parse(R"({"placements": []})");
  std::function<std::optional<Json>(const SeenRequest&)> otherReplies;

  std::vector<MapStatus> statuses() const;
  std::vector<std::vector<MapAsset>> assetsFound() const;

 private:
  mutable std::mutex mutex_;
  std::vector<MapStatus> statuses_;
  std::vector<std::vector<MapAsset>> assetsFound_;
};

}  // namespace omra
