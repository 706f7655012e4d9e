// Shared set-up for the backend record store's tests and benchmark: a fake back end behind the
// HttpClient interface that speaks the ingest route (scriptable failures, records what arrived), a
// temporary outbox folder, and a harness that opens stores over both.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/memory_logger.h"
#include "src/platform/store/backend_record_store.h"
#include "tests/common/temp_dir_testutil.h"

namespace omra::testing {

// Two accounts (developer-key digests).
inline const std::string kAccountA = "0123456789abcdef0123456789abcdef";
inline const std::string kAccountB = "fedcba9876543210fedcba9876543210";

// One batch_write request as the fake back end received it.
struct IngestCall {
  std::chrono::steady_clock::time_point at;
  std::string url;
  std::string account;  // the account header ("" when missing)
  size_t bodyBytes = 0;
  // (table, SessionId, RecordId) of each item, in body order; empty when the body was unreadable.
  std::vector<std::tuple<std::string, std::string, int64_t>> items;
};

// The fake's answer to one call.
struct IngestReply {
  long status = 200;  // 0: no HTTP answer (connection refused)
  Json body = Json::object();
  std::map<std::string, std::string> headers;

  static IngestReply refused() { return {0, Json(), {}}; }
};

// Answers POST .../records/batch_write like the back end's route: on a 2xx the batch's items count
// as stored. Completions are posted to the main queue given, as the real client does. Thread-safe.
class FakeIngestBackend : public HttpClient {
 public:
  // Called per request with its number (0-based); the default stores everything.
  using Script = std::function<IngestReply(const IngestCall& call, size_t number)>;

  explicit FakeIngestBackend(MainQueue& mainQueue) : main_(mainQueue) {}
  void send(HttpRequest request, Completion completion) override;

  void setScript(Script script);
  std::vector<IngestCall> calls() const;
  // How often each (table, SessionId, RecordId) was stored, by account.
  std::map<std::tuple<std::string, std::string, std::string, int64_t>, int> stored() const;
  size_t storedCount() const;

 private:
  MainQueue& main_;
  mutable std::mutex mu_;
  Script script_;
  std::vector<IngestCall> calls_;
  std::map<std::tuple<std::string, std::string, std::string, int64_t>, int> stored_;
};

// A camera-path record of session, with RecordId id and about payloadBytes of poses (beyond 2 KB,
// padding text).
Item cameraRecord(const std::string& session, int64_t id, size_t payloadBytes = 200);
// The kit's five record tables.
std::vector<TableSchema> kitRecordTables();

// One test's outbox folder, fake back end and stores. The test thread is not the main queue.
class BackendStoreHarness {
 public:
  // Options for a fast test: short linger and backoff, fixed seed, no wait on close.
  BackendRecordStore::Options options() const;
  // Opens a store over the harness's outbox and fake back end (fails the test when it cannot).
  std::shared_ptr<BackendRecordStore> open(const BackendRecordStore::Options& options);
  std::shared_ptr<BackendRecordStore> open() { return open(options()); }

  // Saves each item through the account's view of store and waits for every completion.
  std::vector<std::optional<StoreError>> saveAll(const std::shared_ptr<BackendRecordStore>& store,
                                                 const std::string& account,
                                                 const std::vector<TableItem>& items);
  // Polls pred until it holds or timeout passes.
  static bool waitUntil(const std::function<bool()>& pred,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10));

  ScopedTempDir tmp{"omra-outbox"};
  std::string dir = tmp.path().string();
  std::string outboxPath = tmp.file("outbox.db");
  std::shared_ptr<AsioDispatcher> dispatcher = std::make_shared<AsioDispatcher>();
  std::shared_ptr<FakeIngestBackend> backend =
      std::make_shared<FakeIngestBackend>(dispatcher->mainQueue());
  std::shared_ptr<MemoryLogger> logger = std::make_shared<MemoryLogger>();
};

// n camera records of one session in the table, RecordIds first, first + 1, ...
std::vector<TableItem> cameraRecords(const std::string& session, int n, int64_t first = 1,
                                     size_t payloadBytes = 200);

}  // namespace omra::testing
