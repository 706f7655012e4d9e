// omra-server in process: the HTTP routes of the back end under "/beta" and "/prod" over one record
// store, with the localizer job runner. Owns its HTTP front (HttpServer) and job workers; start(),
// stop() and the accessors are thread-safe.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "omrakit/config.h"
#include "omrakit/platform/record_store.h"
#include "server/account_quotas.h"
#include "server/job_runner.h"
#include "server/localizer_jobs.h"

namespace omra::server {

class MapService;
class HttpServer;

struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: any free port (read it back with Server::port())
  // The store the server keeps everything in; Server requires it. runServerCommand opens
  // storeSpec when it is null.
  std::shared_ptr<RecordStore> store;
  std::string storeSpec = "sqlite:omra-server.db";  // "sqlite:PATH", "dynamodb:URL", "memory"
  AwsSettings aws;                                  // region and credentials for a DynamoDB store
  bool createTables = true;                         // create missing tables at start
  int jobWorkers = 2;
  int httpThreads = 8;  // threads that run the routes (may wait on the store); 0: the I/O ones
  int ioThreads = 2;    // threads that read and write every connection
  size_t maxConnections = 4096;   // connections past it are closed at once
  int keepAliveSeconds = 5;       // idle time allowed between requests on one connection
  int headerTimeoutMs = 10000;    // from a request's first byte to the end of its header
  int bodyTimeoutMs = 30000;      // from the end of the header to the end of the body
  int writeTimeoutMs = 10000;     // for writing one answer
  size_t maxBodyBytes = 1 << 20;  // on the bytes read and on the decoded (gunzipped) body
  // Developer-key digests (accounts) served; empty: every account. Kept only as hashes.
  std::set<std::string> allowedDeveloperKeys;
  // Per-account rate limits, per server process (each replica keeps its own buckets).
  QuotaOptions quotas;
  LocalizerOptions localizers;
  bool logRequests = true;
  // Receives every log line (requests and jobs); default: standard error. Must be thread-safe.
  std::function<void(std::string_view)> log;
};

class Server {
 public:
  explicit Server(ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Creates the tables (when asked), binds and serves on background threads. False with a reason
  // when the store or the port cannot be used. Call once.
  bool start(std::string* error = nullptr);
  // The bound port (0 before start).
  int port() const { return port_.load(); }
  // "http://HOST:PORT", the base the kit's endpoint hosts take.
  std::string baseUrl() const;
  // Stops taking requests, finishes running jobs (queued ones are dropped) and joins every
  // thread. Idempotent.
  void stop();
  // Blocks until no localizer job is queued or running (tests, demos).
  void waitForJobs();
  JobRunner::Stats jobStats() const;

 private:
  void log(std::string_view line) const;

  ServerOptions options_;
  std::unique_ptr<JobRunner> jobs_;
  std::unique_ptr<MapService> service_;
  std::unique_ptr<HttpServer> http_;
  std::atomic<int> port_{0};
  std::once_flag stopped_;
};

// The `omra server` command: opens the store (options.store, or options.storeSpec), serves until
// SIGINT or SIGTERM, then stops as Server::stop() does. A port it cannot bind (another server
// listens on it) is an error: returns 1 with the reason on standard error. Blocks those two signals
// in the calling thread before any thread starts, so call it from the main thread before starting
// others. Returns the process exit code.
int runServerCommand(ServerOptions options);

// Creates every record table and the server's own in the store named by storeSpec (DynamoDB's
// "create tables" step). Returns 0, or prints the error and returns 1.
int createTablesCommand(const std::string& storeSpec, const AwsSettings& aws = {});

}  // namespace omra::server
