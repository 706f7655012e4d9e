#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "omrakit/platform/record_store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace omra {

// The embedded record store: one SQLite file, one SQL table per record table with primary key
// (hash, range), each item kept whole in DynamoDB's JSON form. WAL mode and a busy timeout let a
// kit and a back end in two processes share the file. Owns its connection and one writer thread;
// thread-safe. save() queues the item; the writer thread writes whatever is queued in one
// transaction and completes each save on that thread. The destructor writes what is still queued.
class SqliteRecordStore : public RecordStore {
 public:
  struct Options {
    int busyTimeoutMs = 5000;
    size_t maxBatch = 1000;  // saves per transaction
  };

  // Opens or creates the file; null with *error set when it cannot be opened.
  static std::unique_ptr<SqliteRecordStore> open(const std::string& path, std::string* error);
  static std::unique_ptr<SqliteRecordStore> open(const std::string& path, Options options,
                                                 std::string* error);
  ~SqliteRecordStore() override;
  SqliteRecordStore(const SqliteRecordStore&) = delete;
  SqliteRecordStore& operator=(const SqliteRecordStore&) = delete;

  std::optional<StoreError> createTable(const TableSchema& schema) override;
  void save(const std::string& table, Item item, SaveCompletion completion) override;
  std::optional<StoreError> put(const std::string& table, Item item) override;
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error = nullptr) override;
  QueryPage query(const std::string& table, const AttributeValue& hashValue,
                  const std::optional<Item>& startKey, int limit,
                  std::optional<StoreError>* error = nullptr) override;

  // Blocks until every save queued before the call has completed. Thread-safe; not from a
  // save completion.
  void waitForSaves();

 private:
  struct PendingSave {
    std::string table;
    Item item;
    SaveCompletion completion;
  };
  struct TableStatements;

  SqliteRecordStore(sqlite3* db, Options options);
  void writerLoop();
  // With dbMu_ held.
  std::optional<StoreError> exec(const char* sql);
  StoreError lastError(const std::string& what);
  const TableSchema* schemaFor(const std::string& table);
  TableStatements* statementsFor(const std::string& table, std::optional<StoreError>* error);
  std::optional<StoreError> writeItem(const std::string& table, const Item& item);

  Options options_;
  std::mutex dbMu_;  // guards db_, schemas_, statements_
  sqlite3* db_;
  std::map<std::string, TableSchema> schemas_;
  std::map<std::string, std::unique_ptr<TableStatements>> statements_;

  std::mutex queueMu_;  // guards the fields below
  std::condition_variable queueCv_;
  std::deque<PendingSave> pending_;
  uint64_t queued_ = 0, completed_ = 0;
  bool stopping_ = false;
  std::thread writer_;
};

}  // namespace omra
