#include "src/platform/store/sqlite_record_store.h"

#include <sqlite3.h>

#include <charconv>
#include <cstdlib>

#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/item_checks.h"
#include "src/platform/store/item_codec.h"

namespace omra {
namespace {

constexpr const char* kMetaTable = "omra_record_tables";

std::string quoteIdentifier(const std::string& name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

struct Statement {
  sqlite3_stmt* stmt = nullptr;
  ~Statement() { sqlite3_finalize(stmt); }
};

// Numbers keep SQLite's numeric order: integers as INTEGER, everything else as REAL.
void bindKey(sqlite3_stmt* stmt, int index, const AttributeValue& value) {
  if (value.type != AttributeValue::Type::kNumber) {
    sqlite3_bind_text(stmt, index, value.text.data(), static_cast<int>(value.text.size()),
                      SQLITE_TRANSIENT);
    return;
  }
  int64_t n;
  const char* begin = value.text.data();
  const char* end = begin + value.text.size();
  const auto res = std::from_chars(begin, end, n);
  if (res.ec == std::errc() && res.ptr == end) {
    sqlite3_bind_int64(stmt, index, n);
  } else {
    // from_chars, not strtod: a host's comma-decimal locale must not turn 2.5 into 2.
    double d = 0;
    const char* start = begin != end && *begin == '+' ? begin + 1 : begin;
    std::from_chars(start, end, d);
    sqlite3_bind_double(stmt, index, d);
  }
}

const char* keyTypeText(KeyType t) { return t == KeyType::kString ? "S" : "N"; }
KeyType keyTypeOf(const unsigned char* text) {
  return text != nullptr && text[0] == 'S' ? KeyType::kString : KeyType::kNumber;
}

// The item of a row's column: BLOB rows are in the compact form, TEXT rows in DynamoDB's JSON.
std::optional<Item> rowItem(sqlite3_stmt* s, int column, std::string* why) {
  if (sqlite3_column_type(s, column) == SQLITE_BLOB) {
    const void* data = sqlite3_column_blob(s, column);
    const int size = sqlite3_column_bytes(s, column);
    return decodeItem(std::string_view(static_cast<const char*>(data), static_cast<size_t>(size)),
                      why);
  }
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, column));
  const int size = sqlite3_column_bytes(s, column);
  const std::optional<Json> json =
      readJson(std::string_view(text != nullptr ? text : "", static_cast<size_t>(size)), why);
  return json ? itemFromJson(*json, why) : std::nullopt;
}

bool sameSchema(const TableSchema& a, const TableSchema& b) {
  return a.hashKey == b.hashKey && a.hashType == b.hashType && a.rangeKey == b.rangeKey &&
         (!a.rangeKey || a.rangeType == b.rangeType);
}

}  // namespace

struct SqliteRecordStore::TableStatements {
  Statement insert, get, queryFirst, queryAfter;
};

struct SqliteRecordStore::Connection {
  sqlite3* db = nullptr;
  std::map<std::string, std::unique_ptr<TableStatements>> statements;
  std::string rowBuffer;  // the row being written, kept to reuse its capacity
  explicit Connection(sqlite3* d) : db(d) {}
  ~Connection() {
    statements.clear();
    sqlite3_close(db);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  StoreError error(const std::string& what) const {
    return StoreError{"SQLite: " + what + ": " + sqlite3_errmsg(db)};
  }
};

// A read connection taken from the pool for one call; handed back on destruction.
class SqliteRecordStore::ReadLease {
 public:
  ReadLease(SqliteRecordStore& store, std::unique_ptr<Connection> c, StoreError error)
      : store_(store), c_(std::move(c)), error_(std::move(error)) {}
  ReadLease(ReadLease&&) = default;
  ~ReadLease() {
    if (!c_) return;
    {
      std::lock_guard lock(store_.readMu_);
      store_.idleReaders_.push_back(std::move(c_));
    }
    store_.readCv_.notify_one();
  }
  Connection* get() const { return c_.get(); }
  const StoreError& error() const { return error_; }

 private:
  SqliteRecordStore& store_;
  std::unique_ptr<Connection> c_;
  StoreError error_;
};

std::unique_ptr<SqliteRecordStore> SqliteRecordStore::open(const std::string& path,
                                                           std::string* error) {
  return open(path, Options{}, error);
}

std::unique_ptr<SqliteRecordStore> SqliteRecordStore::open(const std::string& path, Options options,
                                                           std::string* error) {
  sqlite3* db = nullptr;
  const int rc =
      sqlite3_open_v2(path.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  auto fail = [&](const std::string& what) -> std::unique_ptr<SqliteRecordStore> {
    if (error != nullptr) *error = what + ": " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    sqlite3_close(db);
    return nullptr;
  };
  if (rc != SQLITE_OK) return fail("cannot open the record database " + path);
  sqlite3_busy_timeout(db, options.busyTimeoutMs);
  // Only a new, empty file takes the page size. 8 KiB packs the kit's typical 1 KB image-feature
  // rows better than 4 KiB (measured in bench_store_size).
  const bool compact = options.rowForm == Options::RowForm::kCompact;
  const std::string setup =
      std::string(compact ? "PRAGMA page_size=8192;" : "") +
      std::string(
          "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
          // The writer's inserts land all over the key space (a session each): 16 MiB of cache
          // and the file mapped spare it a read() per page; a WAL of 4000 pages between
          // checkpoints writes a page rewritten by many commits back once, with a quarter of
          // the checkpoints' syncs.
          "PRAGMA cache_size=-16384; PRAGMA mmap_size=268435456; PRAGMA wal_autocheckpoint=4000;"
          "CREATE TABLE IF NOT EXISTS ") +
      kMetaTable +
      " (name TEXT PRIMARY KEY, hash_key TEXT NOT NULL, hash_type TEXT NOT NULL,"
      " range_key TEXT, range_type TEXT NOT NULL);";
  if (sqlite3_exec(db, setup.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    return fail("cannot prepare the record database " + path);
  }
  return std::unique_ptr<SqliteRecordStore>(new SqliteRecordStore(db, path, options));
}

SqliteRecordStore::SqliteRecordStore(sqlite3* db, std::string path, Options options)
    : path_(std::move(path)),
      options_(options),
      writerDb_(std::make_unique<Connection>(db)),
      writer_([this] { writerLoop(); }) {
  // An in-memory database is private to its connection: there, reads share the writer's.
  if (path_.empty() || path_ == ":memory:" || path_.starts_with("file::memory:")) {
    options_.readConnections = 0;
  }
}

SqliteRecordStore::~SqliteRecordStore() {
  {
    std::lock_guard lock(queueMu_);
    stopping_ = true;
  }
  queueCv_.notify_all();
  writer_.join();
  std::lock_guard lock(readMu_);
  idleReaders_.clear();
}

struct SqliteRecordStore::ReadAccess {
  ReadLease lease;
  std::unique_lock<std::mutex> writerLock;
  Connection* connection = nullptr;  // null: lease.error() says why
};

SqliteRecordStore::ReadAccess SqliteRecordStore::beginRead() {
  if (options_.readConnections > 0) {
    ReadLease reader = lease();
    Connection* c = reader.get();
    return ReadAccess{std::move(reader), {}, c};
  }
  return ReadAccess{ReadLease(*this, nullptr, {}), std::unique_lock(dbMu_), writerDb_.get()};
}

SqliteRecordStore::ReadLease SqliteRecordStore::lease() {
  std::unique_lock lock(readMu_);
  readCv_.wait(lock,
               [&] { return !idleReaders_.empty() || openReaders_ < options_.readConnections; });
  if (!idleReaders_.empty()) {
    std::unique_ptr<Connection> c = std::move(idleReaders_.back());
    idleReaders_.pop_back();
    return ReadLease(*this, std::move(c), {});
  }
  ++openReaders_;
  lock.unlock();
  sqlite3* db = nullptr;
  const int rc =
      sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(db, options_.busyTimeoutMs);
    sqlite3_exec(db, "PRAGMA mmap_size=268435456;", nullptr, nullptr, nullptr);  // as the writer
    return ReadLease(*this, std::make_unique<Connection>(db), {});
  }
  StoreError e{"SQLite: cannot open a read connection to " + path_ + ": " +
               (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc))};
  sqlite3_close(db);
  lock.lock();
  --openReaders_;
  readCv_.notify_one();
  return ReadLease(*this, nullptr, std::move(e));
}

std::optional<StoreError> SqliteRecordStore::exec(const char* sql) {
  if (sqlite3_exec(writerDb_->db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return writerDb_->error(sql);
  }
  return std::nullopt;
}

std::optional<TableSchema> SqliteRecordStore::schemaFor(Connection& c, const std::string& table) {
  {
    std::lock_guard lock(schemaMu_);
    if (auto it = schemas_.find(table); it != schemas_.end()) return it->second;
  }
  // Another process may have created it since.
  Statement s;
  const std::string sql = std::string("SELECT hash_key, hash_type, range_key, range_type FROM ") +
                          kMetaTable + " WHERE name = ?1";
  if (sqlite3_prepare_v2(c.db, sql.c_str(), -1, &s.stmt, nullptr) != SQLITE_OK) {
    return std::nullopt;
  }
  sqlite3_bind_text(s.stmt, 1, table.c_str(), -1, SQLITE_TRANSIENT);
  if (sqlite3_step(s.stmt) != SQLITE_ROW) return std::nullopt;
  TableSchema schema;
  schema.name = table;
  schema.hashKey = reinterpret_cast<const char*>(sqlite3_column_text(s.stmt, 0));
  schema.hashType = keyTypeOf(sqlite3_column_text(s.stmt, 1));
  if (sqlite3_column_type(s.stmt, 2) != SQLITE_NULL) {
    schema.rangeKey = reinterpret_cast<const char*>(sqlite3_column_text(s.stmt, 2));
  }
  schema.rangeType = keyTypeOf(sqlite3_column_text(s.stmt, 3));
  std::lock_guard lock(schemaMu_);
  schemas_.insert_or_assign(table, schema);
  return schema;
}

void SqliteRecordStore::forget(Connection& c, const std::string& table) {
  c.statements.erase(table);
  std::lock_guard lock(schemaMu_);
  schemas_.erase(table);
}

SqliteRecordStore::TableStatements* SqliteRecordStore::statementsFor(
    Connection& c, const std::string& table, std::optional<StoreError>* error) {
  if (auto it = c.statements.find(table); it != c.statements.end()) return it->second.get();
  const std::string q = quoteIdentifier(table);
  auto st = std::make_unique<TableStatements>();
  const auto prepare = [&](Statement& s, const std::string& sql) {
    return sqlite3_prepare_v3(c.db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &s.stmt, nullptr) ==
           SQLITE_OK;
  };
  if (!prepare(st->insert,
               "INSERT OR REPLACE INTO " + q + " (hash, range, item) VALUES (?1, ?2, ?3)") ||
      !prepare(st->get, "SELECT item FROM " + q + " WHERE hash = ?1 AND range = ?2") ||
      !prepare(st->queryFirst,
               "SELECT item FROM " + q + " WHERE hash = ?1 ORDER BY range LIMIT ?2") ||
      !prepare(st->queryAfter, "SELECT item FROM " + q +
                                   " WHERE hash = ?1 AND range > ?2 ORDER BY range LIMIT ?3")) {
    if (error != nullptr) *error = c.error("preparing statements for " + table);
    return nullptr;
  }
  return c.statements.emplace(table, std::move(st)).first->second.get();
}

std::optional<StoreError> SqliteRecordStore::createTable(const TableSchema& schema) {
  std::lock_guard lock(dbMu_);
  Connection& c = *writerDb_;
  if (const auto existing = schemaFor(c, schema.name)) {
    if (!sameSchema(*existing, schema)) {
      return StoreError{"Table already exists with another key schema: " + schema.name};
    }
    return std::nullopt;
  }
  if (auto e = exec("BEGIN IMMEDIATE")) return e;
  const std::string q = quoteIdentifier(schema.name);
  const bool json = options_.rowForm == Options::RowForm::kJsonText;
  const std::string columns = std::string(" (hash NOT NULL, range NOT NULL, item ") +
                              (json ? "TEXT" : "BLOB") + " NOT NULL, ";
  // Items are kept in key order (one b-tree) where that costs no space: JSON rows, and small
  // items read in ranges. Large rows keep a rowid table, where a row spills only past a page.
  const std::string create = "CREATE TABLE IF NOT EXISTS " + q + columns +
                             (json || schema.clustered ? "PRIMARY KEY (hash, range)) WITHOUT ROWID"
                                                       : "UNIQUE (hash, range))");
  std::optional<StoreError> error = exec(create.c_str());
  if (!error) {
    Statement s;
    const std::string sql = std::string("INSERT OR IGNORE INTO ") + kMetaTable +
                            " (name, hash_key, hash_type, range_key, range_type)"
                            " VALUES (?1, ?2, ?3, ?4, ?5)";
    if (sqlite3_prepare_v2(c.db, sql.c_str(), -1, &s.stmt, nullptr) != SQLITE_OK) {
      error = c.error("registering " + schema.name);
    } else {
      sqlite3_bind_text(s.stmt, 1, schema.name.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(s.stmt, 2, schema.hashKey.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(s.stmt, 3, keyTypeText(schema.hashType), -1, SQLITE_STATIC);
      if (schema.rangeKey) {
        sqlite3_bind_text(s.stmt, 4, schema.rangeKey->c_str(), -1, SQLITE_TRANSIENT);
      }
      sqlite3_bind_text(s.stmt, 5, keyTypeText(schema.rangeType), -1, SQLITE_STATIC);
      if (sqlite3_step(s.stmt) != SQLITE_DONE) error = c.error("registering " + schema.name);
    }
  }
  if (error) {
    exec("ROLLBACK");
    return error;
  }
  if (auto e = exec("COMMIT")) {
    exec("ROLLBACK");
    return e;
  }
  forget(c, schema.name);
  const auto stored = schemaFor(c, schema.name);
  if (stored && !sameSchema(*stored, schema)) {
    return StoreError{"Table already exists with another key schema: " + schema.name};
  }
  return std::nullopt;
}

std::optional<StoreError> SqliteRecordStore::writeItem(const std::string& table, const Item& item) {
  Connection& c = *writerDb_;
  const auto schema = schemaFor(c, table);
  if (!schema) return missingTableError(table);
  if (auto e = checkItem(*schema, item)) return e;
  std::optional<StoreError> error;
  TableStatements* st = statementsFor(c, table, &error);
  if (st == nullptr) return error;
  sqlite3_stmt* s = st->insert.stmt;
  sqlite3_reset(s);
  bindKey(s, 1, item.at(schema->hashKey));
  if (schema->rangeKey) {
    bindKey(s, 2, item.at(*schema->rangeKey));
  } else {
    sqlite3_bind_int64(s, 2, 0);
  }
  std::string& row = c.rowBuffer;
  row.clear();
  if (options_.rowForm == Options::RowForm::kCompact) {
    encodeItem(item, row);
    sqlite3_bind_blob(s, 3, row.data(), static_cast<int>(row.size()), SQLITE_STATIC);
  } else {
    std::optional<std::string> text = itemToJsonText(item);
    row = text ? std::move(*text) : dumpJson(itemToJson(item));  // U+FFFD for non-UTF-8 bytes
    sqlite3_bind_text(s, 3, row.data(), static_cast<int>(row.size()), SQLITE_STATIC);
  }
  const int rc = sqlite3_step(s);
  sqlite3_reset(s);
  sqlite3_clear_bindings(s);
  if (rc != SQLITE_DONE) {
    StoreError e = c.error("writing to " + table);
    forget(c, table);
    return e;
  }
  return std::nullopt;
}

void SqliteRecordStore::save(const std::string& table, Item item, SaveCompletion completion) {
  {
    std::lock_guard lock(queueMu_);
    pending_.push_back({table, std::move(item), std::move(completion)});
    ++queued_;
  }
  queueCv_.notify_all();
}

void SqliteRecordStore::waitForSaves() {
  std::unique_lock lock(queueMu_);
  const uint64_t target = queued_;
  queueCv_.wait(lock, [&] { return completed_ >= target; });
}

void SqliteRecordStore::writerLoop() {
  std::unique_lock lock(queueMu_);
  while (true) {
    queueCv_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
    if (pending_.empty()) return;  // stopping, nothing left
    std::vector<PendingSave> batch;
    while (!pending_.empty() && batch.size() < options_.maxBatch) {
      batch.push_back(std::move(pending_.front()));
      pending_.pop_front();
    }
    lock.unlock();

    std::vector<std::optional<StoreError>> results(batch.size());
    {
      std::lock_guard db(dbMu_);
      const bool inTransaction = !exec("BEGIN IMMEDIATE").has_value();
      for (size_t i = 0; i < batch.size(); ++i)
        results[i] = writeItem(batch[i].table, batch[i].item);
      if (inTransaction) {
        if (auto e = exec("COMMIT")) {
          exec("ROLLBACK");
          for (auto& r : results) {
            if (!r) r = e;
          }
        }
      }
    }
    for (size_t i = 0; i < batch.size(); ++i) {
      if (batch[i].completion) batch[i].completion(std::move(results[i]));
    }

    lock.lock();
    completed_ += batch.size();
    queueCv_.notify_all();
  }
}

std::optional<StoreError> SqliteRecordStore::put(const std::string& table, Item item) {
  std::lock_guard lock(dbMu_);
  return writeItem(table, item);
}

std::optional<StoreError> SqliteRecordStore::writeBatch(const std::vector<TableItem>& items) {
  GroupedBatch mine{&items, std::nullopt, false};
  std::unique_lock lock(groupMu_);
  groupQueue_.push_back(&mine);
  while (!mine.done) {
    if (groupWriting_) {
      groupCv_.wait(lock);
      continue;
    }
    // No one is writing: this call writes every batch queued so far, its own among them.
    groupWriting_ = true;
    std::vector<GroupedBatch*> group;
    group.swap(groupQueue_);
    lock.unlock();
    writeGroup(group);
    lock.lock();
    for (GroupedBatch* b : group) b->done = true;
    groupWriting_ = false;
    groupCv_.notify_all();
  }
  return mine.result;
}

void SqliteRecordStore::writeGroup(const std::vector<GroupedBatch*>& group) {
  std::lock_guard lock(dbMu_);
  std::vector<GroupedBatch*> valid;
  for (GroupedBatch* b : group) {
    for (const TableItem& t : *b->items) {
      const auto schema = schemaFor(*writerDb_, t.table);
      if (!schema) {
        b->result = missingTableError(t.table);
      } else if (auto e = checkItem(*schema, t.item)) {
        b->result = std::move(e);
      }
      if (b->result) break;
    }
    if (!b->result) valid.push_back(b);
  }
  if (valid.empty()) return;
  if (auto e = exec("BEGIN IMMEDIATE")) {
    for (GroupedBatch* b : valid) b->result = e;
    return;
  }
  bool any = false;
  for (GroupedBatch* b : valid) {
    if (auto e = exec("SAVEPOINT batch")) {
      b->result = std::move(e);
      continue;
    }
    for (const TableItem& t : *b->items) {
      if (auto e = writeItem(t.table, t.item)) {
        b->result = std::move(e);
        break;
      }
    }
    if (b->result) exec("ROLLBACK TO batch");  // only this batch's writes go
    exec("RELEASE batch");
    any = any || !b->result;
  }
  if (!any) {
    exec("ROLLBACK");
    return;
  }
  if (auto e = exec("COMMIT")) {
    exec("ROLLBACK");
    for (GroupedBatch* b : valid) {
      if (!b->result) b->result = e;
    }
  }
}

std::optional<Item> SqliteRecordStore::get(const std::string& table, const Item& key,
                                           std::optional<StoreError>* error) {
  if (error != nullptr) error->reset();
  auto fail = [&](StoreError e) -> std::optional<Item> {
    if (error != nullptr) *error = std::move(e);
    return std::nullopt;
  };
  ReadAccess read = beginRead();
  if (read.connection == nullptr) return fail(read.lease.error());
  Connection& c = *read.connection;
  const auto schema = schemaFor(c, table);
  if (!schema) return fail(missingTableError(table));
  if (auto e = checkKey(*schema, key)) return fail(std::move(*e));
  std::optional<StoreError> prepError;
  TableStatements* st = statementsFor(c, table, &prepError);
  if (st == nullptr) return fail(std::move(*prepError));
  sqlite3_stmt* s = st->get.stmt;
  sqlite3_reset(s);
  bindKey(s, 1, key.at(schema->hashKey));
  if (schema->rangeKey) {
    bindKey(s, 2, key.at(*schema->rangeKey));
  } else {
    sqlite3_bind_int64(s, 2, 0);
  }
  const int rc = sqlite3_step(s);
  std::optional<Item> result;
  std::optional<StoreError> readError;
  if (rc == SQLITE_ROW) {
    std::string why;
    result = rowItem(s, 0, &why);
    if (!result) readError = StoreError{"unreadable stored item in " + table + " " + why};
  } else if (rc != SQLITE_DONE) {
    readError = c.error("reading " + table);
    forget(c, table);
  }
  if (!readError || rc == SQLITE_ROW) {
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
  }
  if (readError) return fail(std::move(*readError));
  return result;
}

QueryPage SqliteRecordStore::query(const std::string& table, const AttributeValue& hashValue,
                                   const std::optional<Item>& startKey, int limit,
                                   std::optional<StoreError>* error) {
  if (error != nullptr) error->reset();
  QueryPage page;
  auto fail = [&](StoreError e) {
    if (error != nullptr) *error = std::move(e);
    return QueryPage{};
  };
  ReadAccess read = beginRead();
  if (read.connection == nullptr) return fail(read.lease.error());
  Connection& c = *read.connection;
  const auto schema = schemaFor(c, table);
  if (!schema) return fail(missingTableError(table));
  std::optional<StoreError> prepError;
  TableStatements* st = statementsFor(c, table, &prepError);
  if (st == nullptr) return fail(std::move(*prepError));
  // One more row than asked tells whether more follow.
  const int64_t rows = limit > 0 ? static_cast<int64_t>(limit) + 1 : -1;
  sqlite3_stmt* s;
  if (startKey) {
    if (!schema->rangeKey) return page;  // one item per hash value: nothing after it
    const auto r = startKey->find(*schema->rangeKey);
    if (r == startKey->end()) return fail(StoreError{"The provided starting key is invalid"});
    s = st->queryAfter.stmt;
    sqlite3_reset(s);
    bindKey(s, 1, hashValue);
    bindKey(s, 2, r->second);
    sqlite3_bind_int64(s, 3, rows);
  } else {
    s = st->queryFirst.stmt;
    sqlite3_reset(s);
    bindKey(s, 1, hashValue);
    sqlite3_bind_int64(s, 2, rows);
  }
  std::optional<StoreError> readError;
  bool more = false;
  int rc;
  while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
    if (limit > 0 && page.items.size() == static_cast<size_t>(limit)) {
      more = true;
      break;
    }
    std::string why;
    auto item = rowItem(s, 0, &why);
    if (!item) {
      readError = StoreError{"unreadable stored item in " + table + " " + why};
      break;
    }
    page.items.push_back(std::move(*item));
  }
  bool broken = false;
  if (!readError && rc != SQLITE_ROW && rc != SQLITE_DONE) {
    readError = c.error("querying " + table);
    broken = true;
  }
  if (broken) {
    forget(c, table);
  } else {
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
  }
  if (readError) return fail(std::move(*readError));
  if (more) page.lastEvaluatedKey = keyOf(*schema, page.items.back());
  return page;
}

}  // namespace omra
