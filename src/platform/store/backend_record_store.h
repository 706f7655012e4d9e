#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"
#include "src/platform/store/ingest_batch.h"
#include "src/platform/store/record_outbox.h"
#include "src/platform/store/retry_backoff.h"

namespace omra {

// The kit's default record store: records go to the back end's ingest route
// (POST {base}/records/batch_write) under the account of the session that wrote them, by way of a
// durable outbox on the device, so that neither a slow nor an absent back end holds up a frame and
// a session recorded offline still reaches the map later.
//
// save() checks the item and queues it in memory (bounded); the store's one worker thread moves
// queued items into the outbox in batched transactions and completes each save there, once the
// item is durable (or with the reason it cannot be: outbox full, item too large, not a record
// table, no account). The same thread sends the oldest rows in batches (one account per request,
// bounded by item count and body size, after a short linger), deletes them on 2xx, retries
// transient failures (no answer, 408, 429, 5xx) with capped exponential backoff and full jitter,
// never sooner than Retry-After, drops the one item a 400/404 names by "table" and "index", and
// drops a batch any other 4xx refuses (each with one log line). HTTP completions only hand the
// answer over to the worker, so the main queue is never blocked. Records remember the back end
// they were written for: a store opened for another URL keeps them in the outbox and sends only
// its own.
//
// Owned through shared_ptr (open()); the per-account views handed out by storeForAccount keep it
// alive. Thread-safe. Destruction completes every queued save, gives delivery closeTimeout, and
// leaves the rest in the outbox for the next process.
class BackendRecordStore : public RecordStore,
                           public std::enable_shared_from_this<BackendRecordStore> {
 public:
  struct Options {
    // Stage base of the maps API, e.g. "https://maps.example.com/prod".
    std::string baseUrl;
    std::string outboxPath;
    size_t outboxMaxBytes = size_t{512} << 20;
    // The tables it takes records for (the kit's five record tables).
    std::vector<TableSchema> tables;
    std::string accountHeader = "X-Omra-Account";
    size_t maxBatchItems = 100;
    size_t maxBodyBytes = kMaxIngestBodyBytes;
    // A lone new record waits this long for company before it is sent.
    std::chrono::milliseconds linger{50};
    // Saves accepted but not yet in the outbox; beyond this saves are refused.
    size_t maxPendingBytes = size_t{16} << 20;
    size_t maxInsertBatch = 1000;  // saves per outbox transaction
    RetryBackoff::Options backoff;
    // An answer that has not come after this is taken as a failed attempt.
    std::chrono::milliseconds requestTimeout{std::chrono::minutes(5)};
    // How long destruction waits for the outbox to drain.
    std::chrono::milliseconds closeTimeout{2000};
    // Its main queue delivers HTTP completions: flush() and destruction there wait only until
    // saves are durable, not for delivery (which needs that queue). Not owned.
    std::weak_ptr<Dispatcher> dispatcher;
  };

  // What the store holds and has done, for tests, benchmarks and diagnostics.
  struct Stats {
    size_t pendingSaves = 0;  // accepted, not yet in the outbox
    size_t pendingBytes = 0;
    size_t peakPendingBytes = 0;
    size_t outboxRows = 0;         // waiting for this back end
    size_t outboxBytes = 0;        // of every row in the file
    size_t outboxOtherRows = 0;    // written for another back end, kept for it
    size_t inFlightBodyBytes = 0;  // the request waiting for its answer (0: none)
    uint64_t requestsSent = 0;
    uint64_t recordsDelivered = 0;
    uint64_t recordsDropped = 0;  // refused by the back end or unreadable in the outbox
    int consecutiveFailures = 0;
  };

  // Opens (or creates) the outbox and starts the worker; rows left by an earlier process are sent
  // as soon as the back end answers. Null with *error set when no outbox can be opened.
  static std::shared_ptr<BackendRecordStore> open(Options options, std::shared_ptr<HttpClient> http,
                                                  std::shared_ptr<Logger> logger,
                                                  std::string* error);
  ~BackendRecordStore() override;
  BackendRecordStore(const BackendRecordStore&) = delete;
  BackendRecordStore& operator=(const BackendRecordStore&) = delete;

  // The back end owns its tables: nothing to create.
  std::optional<StoreError> createTable(const TableSchema& schema) override;
  // Without an account (not through a view) every save is refused.
  void save(const std::string& table, Item item, SaveCompletion completion) override;
  // Records are write-only from the device: these three report an error.
  std::optional<StoreError> put(const std::string& table, Item item) override;
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error = nullptr) override;
  QueryPage query(const std::string& table, const AttributeValue& hashValue,
                  const std::optional<Item>& startKey, int limit,
                  std::optional<StoreError>* error = nullptr) override;
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override;
  // Waits until every accepted save has reached the back end (the outbox is empty), at most
  // timeout; true when nothing is left. On the main queue it waits only until saves are durable.
  bool flush(std::chrono::milliseconds timeout) override;

  // save() on behalf of an account (the developer-key digest).
  void saveAs(const std::string& account, const std::string& table, Item item,
              SaveCompletion completion);
  // Checks every item, then queues each and waits until it is durable. Not all-or-nothing: a
  // full outbox may refuse some; the first error is returned.
  std::optional<StoreError> writeBatchAs(const std::string& account,
                                         const std::vector<TableItem>& items);
  // Blocks until every save accepted so far has completed (is durable or refused).
  void waitForSaves();
  // A store bound to the account; shares this one's outbox and worker.
  std::shared_ptr<RecordStore> accountView(const std::string& accountDigest);

  Stats stats() const;
  const std::string& batchWriteUrl() const { return url_; }

 protected:
  std::shared_ptr<RecordStore> viewForAccount(const std::string& accountDigest) override;

 private:
  struct PendingSave {
    std::string account;
    std::string table;
    Item item;
    size_t bytes = 0;
    SaveCompletion completion;
  };
  // What the worker and the HTTP completions share; outlives the store while a request is out.
  struct Shared {
    std::mutex mu;
    std::condition_variable cv;
    // Guarded by mu:
    std::deque<PendingSave> pending;
    size_t pendingBytes = 0;
    size_t inserting = 0;  // taken from pending, not yet completed
    uint64_t accepted = 0, completed = 0;
    bool stopping = false;
    std::chrono::steady_clock::time_point closeDeadline;
    bool nudge = false;       // a flush asks for an attempt now, backoff or not
    uint64_t requestSeq = 0;  // the request whose answer is awaited
    std::optional<HttpResponse> answer;
    Stats stats;
  };

  BackendRecordStore(Options options, std::shared_ptr<HttpClient> http,
                     std::shared_ptr<Logger> logger, std::unique_ptr<RecordOutbox> outbox);
  const TableSchema* schemaFor(const std::string& table) const;
  bool onMainQueue() const;
  void log(const std::string& message) const;
  // Worker thread only:
  void run();
  void storePending(std::vector<PendingSave>& saves);
  bool sendBatch();
  void handleAnswer(const HttpResponse& answer);
  void failedAttempt(const std::string& why, std::optional<std::chrono::seconds> retryAfter);
  void removeRows(const std::vector<int64_t>& ids);
  void publishOutboxCounts();
  void countOutbox(Stats& stats) const;

  const Options options_;
  const std::string url_;
  const std::shared_ptr<HttpClient> http_;
  const std::shared_ptr<Logger> logger_;
  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();

  // Worker thread only:
  std::unique_ptr<RecordOutbox> outbox_;
  RetryBackoff backoff_;
  std::optional<IngestBatch> batch_;  // the batch out for an answer
  std::chrono::steady_clock::time_point answerDeadline_;
  std::chrono::steady_clock::time_point retryAt_;
  std::chrono::steady_clock::time_point retryAfterFloor_;
  std::chrono::steady_clock::time_point firstRowAt_;
  bool reportedFailure_ = false;

  std::thread worker_;
};

}  // namespace omra
