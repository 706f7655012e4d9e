#include "src/platform/store/record_outbox.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>

#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"

namespace omra {
namespace {

// "OMRB" in the file header tells an outbox from any other SQLite file.
constexpr int kApplicationId = 0x4F4D5242;

bool isAccountDigest(std::string_view s) {
  if (s.size() != 32) return false;
  for (char c : s) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

bool isTableName(std::string_view s) {
  if (s.empty() || s.size() > 255) return false;
  for (char c : s) {
    if (c < 0x21 || c > 0x7e) return false;
  }
  return true;
}

std::string columnText(sqlite3_stmt* s, int column) {
  const void* data = sqlite3_column_blob(s, column);
  const int n = sqlite3_column_bytes(s, column);
  return data != nullptr ? std::string(static_cast<const char*>(data), static_cast<size_t>(n))
                         : std::string();
}

// Another process holding the file is no reason to set it aside.
bool meansBusy(int code) {
  const int primary = code & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

}  // namespace

std::optional<OutboxRow> readOutboxRow(int64_t id, std::string_view account, std::string_view table,
                                       std::string_view itemJson, std::string* why) {
  auto fail = [&](std::string message) -> std::optional<OutboxRow> {
    if (why != nullptr) *why = std::move(message);
    return std::nullopt;
  };
  if (!isAccountDigest(account)) return fail("the account is not a developer-key digest");
  if (!isTableName(table)) return fail("the table name is not printable text");
  const std::optional<Json> json = readJson(itemJson);
  if (!json || !json->is_object() || json->empty()) {
    return fail("the item is not a JSON object of attributes");
  }
  std::string itemWhy;
  if (!itemFromJson(*json, &itemWhy)) return fail("the item is unreadable: " + itemWhy);
  return OutboxRow{id, std::string(account), std::string(table), std::string(itemJson)};
}

RecordOutbox::RecordOutbox(sqlite3* db, std::string path, Options options, Logger* logger)
    : db_(db), path_(std::move(path)), options_(options), logger_(logger) {}

RecordOutbox::~RecordOutbox() {
  for (sqlite3_stmt* s : {insert_, oldestAccount_, oldestRows_, delete_}) sqlite3_finalize(s);
  sqlite3_close(db_);
}

void RecordOutbox::log(const std::string& message) const {
  if (logger_ != nullptr) logger_->print(message);
}

std::string RecordOutbox::lastError() const { return sqlite3_errmsg(db_); }

bool RecordOutbox::exec(const char* sql, std::string* error) {
  if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
  if (error != nullptr) *error = lastError();
  return false;
}

bool RecordOutbox::prepare() {
  const auto p = [&](sqlite3_stmt** s, const char* sql) {
    return sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, s, nullptr) == SQLITE_OK;
  };
  // Rows from before rows named their back end ('') go to whichever opens them.
  return p(&insert_,
           "INSERT INTO records (account, record_table, item, bytes, backend) "
           "VALUES (?1, ?2, ?3, ?4, ?5)") &&
         p(&oldestAccount_,
           "SELECT account FROM records WHERE backend IN (?1, '') ORDER BY id LIMIT 1") &&
         p(&oldestRows_,
           "SELECT id, account, record_table, item FROM records WHERE account = ?1 "
           "AND backend IN (?3, '') ORDER BY id LIMIT ?2") &&
         p(&delete_, "DELETE FROM records WHERE id = ?1 RETURNING bytes");
}

std::unique_ptr<RecordOutbox> RecordOutbox::openChecked(const std::string& path, Options options,
                                                        Logger* logger, std::string* why,
                                                        bool* unreadable) {
  *unreadable = false;
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) {
    *why = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close(db);
    return nullptr;
  }
  std::unique_ptr<RecordOutbox> box(new RecordOutbox(db, path, options, logger));
  sqlite3_busy_timeout(db, options.busyTimeoutMs);
  sqlite3_extended_result_codes(db, 1);
  const auto failWith = [&](const std::string& what) -> std::unique_ptr<RecordOutbox> {
    *why = what;
    *unreadable = !meansBusy(sqlite3_extended_errcode(db));
    return nullptr;
  };
  // Reading the header and every page finds a file that is not SQLite, or one cut short.
  sqlite3_stmt* check = nullptr;
  rc = sqlite3_prepare_v2(db, "PRAGMA quick_check(1)", -1, &check, nullptr);
  std::string verdict;
  if (rc == SQLITE_OK && (rc = sqlite3_step(check)) == SQLITE_ROW) verdict = columnText(check, 0);
  sqlite3_finalize(check);
  if (verdict != "ok") {
    return failWith(verdict.empty() ? box->lastError() : "integrity check: " + verdict);
  }
  int appId = -1, tables = -1;
  sqlite3_stmt* q = nullptr;
  if (sqlite3_prepare_v2(db,
                         "SELECT (SELECT application_id FROM pragma_application_id),"
                         " (SELECT COUNT(*) FROM sqlite_master)",
                         -1, &q, nullptr) == SQLITE_OK &&
      sqlite3_step(q) == SQLITE_ROW) {
    appId = sqlite3_column_int(q, 0);
    tables = sqlite3_column_int(q, 1);
  }
  sqlite3_finalize(q);
  if (appId < 0) return failWith(box->lastError());
  if (appId != kApplicationId && tables > 0) return failWith("not a record outbox");
  std::string error;
  if (tables == 0) {
    // A new file: give freed pages back as the queue drains (set before the first table).
    const std::string init =
        "PRAGMA auto_vacuum=INCREMENTAL; PRAGMA application_id=" + std::to_string(kApplicationId) +
        ";";
    if (!box->exec(init.c_str(), &error)) return failWith(error);
  }
  if (!box->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                 "PRAGMA journal_size_limit=8388608;"
                 "CREATE TABLE IF NOT EXISTS records (id INTEGER PRIMARY KEY AUTOINCREMENT,"
                 " account TEXT NOT NULL, record_table TEXT NOT NULL, item TEXT NOT NULL,"
                 " bytes INTEGER NOT NULL, backend TEXT NOT NULL DEFAULT '');"
                 "CREATE INDEX IF NOT EXISTS records_by_account ON records (account, id);",
                 &error)) {
    return failWith(error);
  }
  // Outboxes made before rows named their back end get the column, empty for the rows they hold.
  sqlite3_stmt* column = nullptr;
  bool hasBackend = false;
  if (sqlite3_prepare_v2(db, "SELECT 1 FROM pragma_table_info('records') WHERE name = 'backend'",
                         -1, &column, nullptr) == SQLITE_OK) {
    hasBackend = sqlite3_step(column) == SQLITE_ROW;
  }
  sqlite3_finalize(column);
  if (!hasBackend &&
      !box->exec("ALTER TABLE records ADD COLUMN backend TEXT NOT NULL DEFAULT ''", &error)) {
    return failWith(error);
  }
  if (!box->prepare()) return failWith("not a record outbox: " + box->lastError());
  if (!box->recount()) return failWith(box->lastError());
  return box;
}

bool RecordOutbox::recount() {
  sqlite3_stmt* totals = nullptr;
  bool counted = false;
  if (sqlite3_prepare_v2(db_,
                         "SELECT COUNT(*), COALESCE(SUM(bytes), 0),"
                         " COUNT(*) FILTER (WHERE backend IN (?1, '')),"
                         " COALESCE(SUM(bytes) FILTER (WHERE backend IN (?1, '')), 0) FROM records",
                         -1, &totals, nullptr) == SQLITE_OK) {
    sqlite3_bind_text(totals, 1, options_.backend.data(), static_cast<int>(options_.backend.size()),
                      SQLITE_STATIC);
    if (sqlite3_step(totals) == SQLITE_ROW) {
      const auto count = [&](int column) {
        return static_cast<size_t>(
            std::max<sqlite3_int64>(0, sqlite3_column_int64(totals, column)));
      };
      allRows_ = count(0);
      allBytes_ = count(1);
      rows_ = count(2);
      bytes_ = count(3);
      counted = true;
    }
  }
  sqlite3_finalize(totals);
  return counted;
}

std::unique_ptr<RecordOutbox> RecordOutbox::open(const std::string& path, Options options,
                                                 Logger* logger, std::string* error) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path file(path);
  if (file.has_parent_path()) fs::create_directories(file.parent_path(), ec);
  std::string why;
  bool unreadable = false;
  if (auto box = openChecked(path, options, logger, &why, &unreadable)) return box;
  if (!unreadable) {
    if (error != nullptr) *error = "cannot open the record outbox " + path + ": " + why;
    return nullptr;
  }
  // A file we cannot read would block every later record; keep it for inspection and start over.
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
  const std::string aside = path + ".corrupt-" + std::to_string(seconds);
  fs::rename(file, aside, ec);
  if (ec) {
    if (error != nullptr) {
      *error = "the record outbox " + path + " is unreadable (" + why +
               ") and cannot be set aside: " + ec.message();
    }
    return nullptr;
  }
  for (const char* suffix : {"-wal", "-shm"}) {
    std::error_code ignored;
    if (fs::exists(path + suffix, ignored)) fs::rename(path + suffix, aside + suffix, ignored);
  }
  if (logger != nullptr) {
    logger->print("The record outbox " + path + " is unreadable (" + why + "); set aside as " +
                  aside + ", starting a fresh outbox");
  }
  auto box = openChecked(path, options, logger, &why, &unreadable);
  if (!box && error != nullptr) *error = "cannot open the record outbox " + path + ": " + why;
  return box;
}

std::vector<std::optional<StoreError>> RecordOutbox::append(const std::vector<NewRow>& rows) {
  std::vector<std::optional<StoreError>> results(rows.size());
  if (rows.empty()) return results;
  std::string error;
  const auto failAll = [&](const std::string& why) {
    for (auto& r : results) r = StoreError{"cannot write the record outbox: " + why};
    return results;
  };
  if (!exec("BEGIN IMMEDIATE", &error)) return failAll(error);
  size_t added = 0, addedBytes = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    const NewRow& row = rows[i];
    const size_t bytes = row.account.size() + row.table.size() + row.itemJson.size();
    if (allBytes_ + addedBytes + bytes > options_.maxBytes) {
      results[i] =
          StoreError{"the record outbox is full (" + std::to_string(options_.maxBytes >> 20) +
                     " MiB of records wait for the back end); the record is dropped"};
      continue;
    }
    sqlite3_reset(insert_);
    sqlite3_bind_text(insert_, 1, row.account.data(), static_cast<int>(row.account.size()),
                      SQLITE_STATIC);
    sqlite3_bind_text(insert_, 2, row.table.data(), static_cast<int>(row.table.size()),
                      SQLITE_STATIC);
    sqlite3_bind_text(insert_, 3, row.itemJson.data(), static_cast<int>(row.itemJson.size()),
                      SQLITE_STATIC);
    sqlite3_bind_int64(insert_, 4, static_cast<sqlite3_int64>(bytes));
    sqlite3_bind_text(insert_, 5, options_.backend.data(),
                      static_cast<int>(options_.backend.size()), SQLITE_STATIC);
    const int rc = sqlite3_step(insert_);
    sqlite3_reset(insert_);
    sqlite3_clear_bindings(insert_);
    if (rc != SQLITE_DONE) {
      const std::string why = lastError();
      exec("ROLLBACK");
      return failAll(why);
    }
    ++added;
    addedBytes += bytes;
  }
  if (!exec("COMMIT", &error)) {
    exec("ROLLBACK");
    return failAll(error);
  }
  rows_ += added;
  bytes_ += addedBytes;
  allRows_ += added;
  allBytes_ += addedBytes;
  return results;
}

bool RecordOutbox::visitOldest(size_t maxRows, const std::function<bool(OutboxRow&&)>& take,
                               std::string* error) {
  sqlite3_reset(oldestAccount_);
  sqlite3_bind_text(oldestAccount_, 1, options_.backend.data(),
                    static_cast<int>(options_.backend.size()), SQLITE_STATIC);
  int rc = sqlite3_step(oldestAccount_);
  if (rc == SQLITE_DONE) {
    sqlite3_reset(oldestAccount_);
    return true;
  }
  if (rc != SQLITE_ROW) {
    if (error != nullptr) *error = lastError();
    sqlite3_reset(oldestAccount_);
    return false;
  }
  const std::string account = columnText(oldestAccount_, 0);
  sqlite3_reset(oldestAccount_);

  std::vector<int64_t> unreadable;
  sqlite3_reset(oldestRows_);
  sqlite3_bind_text(oldestRows_, 1, account.data(), static_cast<int>(account.size()),
                    SQLITE_TRANSIENT);
  sqlite3_bind_int64(oldestRows_, 2, static_cast<sqlite3_int64>(maxRows));
  sqlite3_bind_text(oldestRows_, 3, options_.backend.data(),
                    static_cast<int>(options_.backend.size()), SQLITE_STATIC);
  while ((rc = sqlite3_step(oldestRows_)) == SQLITE_ROW) {
    const int64_t id = sqlite3_column_int64(oldestRows_, 0);
    std::string why;
    std::optional<OutboxRow> row =
        readOutboxRow(id, columnText(oldestRows_, 1), columnText(oldestRows_, 2),
                      columnText(oldestRows_, 3), &why);
    if (!row) {
      log("Dropped record " + std::to_string(id) + " of the record outbox: " + why);
      unreadable.push_back(id);
      continue;
    }
    if (!take(std::move(*row))) break;
  }
  const bool ok = rc == SQLITE_ROW || rc == SQLITE_DONE;
  if (!ok && error != nullptr) *error = lastError();
  sqlite3_reset(oldestRows_);
  sqlite3_clear_bindings(oldestRows_);
  if (!unreadable.empty()) {
    if (auto e = remove(unreadable)) {
      if (error != nullptr) *error = e->message;
      return false;
    }
  }
  return ok;
}

std::optional<StoreError> RecordOutbox::remove(const std::vector<int64_t>& ids) {
  if (ids.empty()) return std::nullopt;
  std::string error;
  if (!exec("BEGIN IMMEDIATE", &error))
    return StoreError{"cannot update the record outbox: " + error};
  size_t removed = 0, removedBytes = 0;
  for (int64_t id : ids) {
    sqlite3_reset(delete_);
    sqlite3_bind_int64(delete_, 1, id);
    int rc;
    while ((rc = sqlite3_step(delete_)) == SQLITE_ROW) {
      ++removed;
      removedBytes += static_cast<size_t>(std::max<int64_t>(0, sqlite3_column_int64(delete_, 0)));
    }
    sqlite3_reset(delete_);
    if (rc != SQLITE_DONE) {
      const std::string why = lastError();
      exec("ROLLBACK");
      return StoreError{"cannot update the record outbox: " + why};
    }
  }
  if (!exec("COMMIT", &error)) {
    exec("ROLLBACK");
    return StoreError{"cannot update the record outbox: " + error};
  }
  // Only this back end's rows are handed out, so only they are removed.
  rows_ -= std::min(rows_, removed);
  bytes_ -= std::min(bytes_, removedBytes);
  allRows_ -= std::min(allRows_, removed);
  allBytes_ -= std::min(allBytes_, removedBytes);
  // Hand the pages of a drained queue back to the file system.
  if (allRows_ == 0) exec("PRAGMA incremental_vacuum");
  return std::nullopt;
}

}  // namespace omra
