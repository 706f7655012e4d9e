#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"

namespace omra {

// Amazon DynamoDB (or a compatible server) over its JSON 1.0 wire protocol on libcurl, signed with
// SigV4. Throttling, 5xx answers and failed connections are retried with exponential backoff and
// jitter, at most maxAttempts in all; other errors are reported at once. Owns its worker threads
// and curl handles; thread-safe. save() queues the item and returns; a worker sends it and
// completes on its own thread. The destructor sends what is still queued.
//
// writeBatch() checks every item (sizes, numbers, key attributes against the table's schema)
// before it sends any, then writes with BatchWriteItem in chunks of 25, retrying UnprocessedItems
// with backoff. That is all-or-none for items the checks refuse, but not against a failure of the
// service part-way: TransactWriteItems would be, and dynalite, the local test server, does not
// have it.
class DynamoDbRecordStore : public RecordStore {
 public:
  struct Options {
    // "http://127.0.0.1:4567"; empty: the region's public endpoint.
    std::string endpoint;
    std::string region = "us-east-1";
    std::string accessKeyId;  // empty: a placeholder key (fine for a local server)
    std::string secretAccessKey;
    std::string sessionToken;  // optional
    int saveThreads = 4;
    int maxAttempts = 3;
    std::chrono::milliseconds backoffBase{25};
    std::chrono::milliseconds connectTimeout{3000};
    std::chrono::milliseconds requestTimeout{15000};
    std::chrono::milliseconds tableActiveTimeout{60000};
  };

  DynamoDbRecordStore(Options options, std::shared_ptr<Logger> logger);
  ~DynamoDbRecordStore() override;
  DynamoDbRecordStore(const DynamoDbRecordStore&) = delete;
  DynamoDbRecordStore& operator=(const DynamoDbRecordStore&) = delete;

  // DescribeTable, then CreateTable (on-demand billing) when missing; waits until it is ACTIVE.
  std::optional<StoreError> createTable(const TableSchema& schema) override;
  void save(const std::string& table, Item item, SaveCompletion completion) override;
  std::optional<StoreError> put(const std::string& table, Item item) override;
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error = nullptr) override;
  QueryPage query(const std::string& table, const AttributeValue& hashValue,
                  const std::optional<Item>& startKey, int limit,
                  std::optional<StoreError>* error = nullptr) override;
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override;

  // Blocks until every save queued before the call has completed. Thread-safe; not from a
  // save completion.
  void waitForSaves();

  const std::string& endpoint() const { return endpoint_; }

  struct Connection;  // one curl handle

 private:
  struct PendingSave {
    std::string table;
    Item item;
    SaveCompletion completion;
  };

  // One operation with retries; the parsed answer, or an error.
  std::optional<Json> call(Connection& connection, const std::string& operation,
                           const Json& request, std::optional<StoreError>* error);
  std::optional<Json> callPooled(const std::string& operation, const Json& request,
                                 std::optional<StoreError>* error);
  std::optional<StoreError> putWith(Connection& connection, const std::string& table,
                                    const Item& item);
  std::optional<TableSchema> schemaFor(const std::string& table, std::optional<StoreError>* error);
  void workerLoop();
  void log(const std::string& message) const;

  Options options_;
  std::string endpoint_;
  std::shared_ptr<Logger> logger_;

  std::mutex poolMu_;  // guards pool_
  std::vector<std::unique_ptr<Connection>> pool_;
  std::mutex schemaMu_;  // guards schemas_
  std::map<std::string, TableSchema> schemas_;

  std::mutex queueMu_;  // guards the fields below
  std::condition_variable queueCv_;
  std::deque<PendingSave> pending_;
  uint64_t queued_ = 0, completed_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace omra
