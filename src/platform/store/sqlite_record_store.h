#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "omrakit/platform/record_store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace omra {

// The embedded record store: one SQLite file, one SQL table per record table keyed (hash, range),
// each item kept whole in the compact form of item_codec.h. Tables are rowid tables with a unique
// (hash, range) index: items of a kilobyte or more then fill pages and overflow pages whole, where
// a WITHOUT ROWID table left most of a page empty per item. Files written before keep their tables
// and JSON-text rows, which still read; new rows there are compact. WAL mode and a busy timeout let
// a kit and a back end in two processes share the file. Owns one writer connection with its writer
// thread, and a small pool of read connections so that get() and query() wait neither for this
// store's writes nor for another process's write lock; thread-safe. save() queues the item; the
// writer thread writes whatever is queued in one transaction and completes each save on that
// thread. writeBatch() is one transaction. The destructor writes what is still queued.
class SqliteRecordStore : public RecordStore {
 public:
  struct Options {
    int busyTimeoutMs = 5000;
    size_t maxBatch = 1000;   // saves per transaction
    int readConnections = 4;  // at most this many reads run at once
    // How new tables are laid out and rows written. kJsonText is the layout of files written
    // before the compact form: kept to compare against and to make such files in tests.
    enum class RowForm { kCompact, kJsonText };
    RowForm rowForm = RowForm::kCompact;
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
  // Checks every item, then writes them all or none. Batches written at the same time from several
  // threads share one transaction (each inside its own savepoint), so that many small batches
  // cost one commit.
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override;

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
  // One SQLite connection and its prepared statements; used by one thread at a time.
  struct Connection;
  class ReadLease;
  struct ReadAccess;

  SqliteRecordStore(sqlite3* db, std::string path, Options options);
  void writerLoop();
  // With dbMu_ held (the writer connection).
  std::optional<StoreError> exec(const char* sql);
  std::optional<StoreError> writeItem(const std::string& table, const Item& item);
  // On any connection its user holds.
  std::optional<TableSchema> schemaFor(Connection& c, const std::string& table);
  TableStatements* statementsFor(Connection& c, const std::string& table,
                                 std::optional<StoreError>* error);
  // A statement of a dropped table keeps failing: forget it and the schema, prepare anew.
  void forget(Connection& c, const std::string& table);
  ReadLease lease();
  // The connection for one read: a leased reader, or the writer's, under its lock, when readers
  // are off.
  ReadAccess beginRead();

  const std::string path_;
  Options options_;
  std::mutex dbMu_;  // guards writerDb_
  std::unique_ptr<Connection> writerDb_;
  std::mutex schemaMu_;  // guards schemas_
  std::map<std::string, TableSchema> schemas_;

  std::mutex readMu_;  // guards the fields below
  std::condition_variable readCv_;
  std::vector<std::unique_ptr<Connection>> idleReaders_;
  int openReaders_ = 0;

  // writeBatch calls waiting for the one that writes them all.
  struct GroupedBatch {
    const std::vector<TableItem>* items;
    std::optional<StoreError> result;
    bool done = false;
  };
  void writeGroup(const std::vector<GroupedBatch*>& group);
  std::mutex groupMu_;  // guards the fields below
  std::condition_variable groupCv_;
  std::vector<GroupedBatch*> groupQueue_;
  bool groupWriting_ = false;

  std::mutex queueMu_;  // guards the fields below
  std::condition_variable queueCv_;
  std::deque<PendingSave> pending_;
  uint64_t queued_ = 0, completed_ = 0;
  bool stopping_ = false;
  std::thread writer_;
};

}  // namespace omra
