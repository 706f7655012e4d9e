// Shared set-up for the session tests and the session benchmark: a scripted back end on loopback
// (cpp-httplib, port 0) speaking the kit's HTTP protocol, a record store that can be held or
// slowed, and an Env over in-memory services with a main queue the test pumps.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "omrakit/config.h"
#include "omrakit/platform/env.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "src/platform/manual_main_queue.h"
#include "src/platform/memory_logger.h"
#include "src/platform/memory_metrics_sink.h"
#include "src/platform/store/memory_record_store.h"

namespace httplib {
class Server;
}

namespace omra {

// The back end, answering every route under both stages. Each route has a default answer that
// tests replace. Thread-safe.
class ScriptedBackend {
 public:
  struct Request {
    std::string path;   // after the stage, e.g. "/maps/create_map"
    std::string query;  // "session_id=...&localizer=..." for GETs
    Json body;          // null for GETs and non-JSON bodies
  };
  struct Reply {
    int status = 200;
    std::string body;
  };
  using Handler = std::function<Reply(const Request&)>;

  ScriptedBackend();
  ~ScriptedBackend();

  // All six hosts point at this server.
  EndpointHosts hosts() const;
  int port() const { return port_; }
  // Replaces the answer of one route (path after the stage).
  void on(const std::string& path, Handler handler);
  void reply(const std::string& path, const std::string& body);
  // Every answer waits this long first (a slow back end).
  void setDelay(std::chrono::milliseconds delay);
  std::vector<Request> requests(const std::string& path) const;
  size_t requestCount(const std::string& path) const { return requests(path).size(); }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::map<std::string, Handler> handlers_;
  std::vector<Request> requests_;
  std::chrono::milliseconds delay_{0};
};

// A MemoryRecordStore whose saves can be held at a gate or slowed down. Thread-safe.
class GatedRecordStore : public MemoryRecordStore {
 public:
  GatedRecordStore();
  void save(const std::string& table, Item item, SaveCompletion completion) override;

  // While closed, save() blocks its caller.
  void close();
  void open();
  // Every save sleeps this long first (a slow store).
  void setDelay(std::chrono::milliseconds delay);
  // Saves currently waiting at the gate.
  int waiting() const;
  std::vector<Item> items(const std::string& table, const std::string& sessionId);

  // flush() calls: the bound given and how many camera-path records were saved by then.
  struct FlushCall {
    std::chrono::milliseconds timeout;
    size_t cameraRecords;
  };
  bool flush(std::chrono::milliseconds timeout) override;
  std::vector<FlushCall> flushes() const;
  // What flush() answers (true unless set).
  void setFlushResult(bool result);

 private:
  std::vector<FlushCall> flushes_;
  bool flushResult_ = true;
  mutable std::mutex gateMutex_;
  std::condition_variable cv_;
  bool closed_ = false;
  int waiting_ = 0;
  std::chrono::milliseconds delay_{0};
};

// An Env over in-memory services: an Asio dispatcher whose main queue the test pumps, the real
// libcurl HTTP client, a fixed device with a bundle identifier.
struct TestEnv {
  TestEnv();
  ~TestEnv();
  // Pumps the main queue until pred() or the timeout.
  bool pumpUntil(const std::function<bool()>& pred,
                 std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
  void pumpFor(std::chrono::milliseconds duration);

  std::shared_ptr<ManualMainQueue> mainQueue;
  std::shared_ptr<MemoryLogger> logger;
  std::shared_ptr<MemoryMetricsSink> metrics;
  std::shared_ptr<GatedRecordStore> store;
  Env env;
};

}  // namespace omra
