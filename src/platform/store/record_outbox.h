// The device's durable queue of records on their way to the back end: one SQLite file (WAL), one
// row per record with the back end it was written for, the account it belongs to, its table and
// the item in DynamoDB JSON text. An outbox opened for one back end hands out only that back
// end's rows (and rows written before rows named theirs); the others wait for a kit pointed at
// their back end again.
// Owned by one thread at a time (the backend store's worker); not thread-safe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace omra {

// One row as read back from the file, checked (see readOutboxRow).
struct OutboxRow {
  int64_t id = 0;
  std::string account;  // the developer-key digest, 32 lower-case hex digits
  std::string table;
  std::string itemJson;  // a JSON object of DynamoDB attribute values
};

// The checks a row read from the file must pass before it is sent: the account is 32 lower-case
// hex digits, the table a non-empty name of printable ASCII, the item a JSON object of the
// attribute values the stores write (S, N, B, M of S). None with *why set otherwise. Thread-safe.
std::optional<OutboxRow> readOutboxRow(int64_t id, std::string_view account, std::string_view table,
                                       std::string_view itemJson, std::string* why);

class RecordOutbox {
 public:
  struct Options {
    // The records' text (item, table and account) may take at most this much; beyond it new
    // records are refused and what is queued is kept.
    size_t maxBytes = size_t{512} << 20;
    int busyTimeoutMs = 5000;
    // The back end new rows are for, and whose rows are handed out (its ingest URL).
    std::string backend;
  };
  struct NewRow {
    std::string account;
    std::string table;
    std::string itemJson;
  };

  // Opens the file, creating it (and its folder) when missing. A file that is not a readable
  // outbox (corrupt, truncated, another program's database) is renamed aside with the suffix
  // ".corrupt-<seconds since 1970>" and a fresh one is made; the logger (may be null) gets one line
  // saying so. Null with *error set when no outbox can be opened at path.
  static std::unique_ptr<RecordOutbox> open(const std::string& path, Options options,
                                            Logger* logger, std::string* error);
  ~RecordOutbox();
  RecordOutbox(const RecordOutbox&) = delete;
  RecordOutbox& operator=(const RecordOutbox&) = delete;

  // Appends the rows in one transaction, in order. Per row: none when it was stored, or why not
  // (the outbox is full; every row fails when the file cannot be written).
  std::vector<std::optional<StoreError>> append(const std::vector<NewRow>& rows);

  // Hands this back end's oldest rows of the account of its oldest row to take, oldest first, until
  // take returns false or maxRows were handed. Rows that fail readOutboxRow are deleted and logged.
  // False when the file cannot be read (*error set).
  bool visitOldest(size_t maxRows, const std::function<bool(OutboxRow&&)>& take,
                   std::string* error);

  // Deletes the rows (one transaction).
  std::optional<StoreError> remove(const std::vector<int64_t>& ids);

  // Counts the rows again (another process may share the file).
  bool recount();

  // This back end's rows and their bytes.
  size_t rowCount() const { return rows_; }
  size_t storedBytes() const { return bytes_; }
  // Rows kept for other back ends.
  size_t otherRows() const { return allRows_ - std::min(allRows_, rows_); }
  // Every row's bytes, which the size cap counts.
  size_t fileBytes() const { return allBytes_; }
  const std::string& path() const { return path_; }

 private:
  RecordOutbox(sqlite3* db, std::string path, Options options, Logger* logger);
  static std::unique_ptr<RecordOutbox> openChecked(const std::string& path, Options options,
                                                   Logger* logger, std::string* why,
                                                   bool* unreadable);
  bool prepare();
  bool exec(const char* sql, std::string* error = nullptr);
  std::string lastError() const;
  void log(const std::string& message) const;

  sqlite3* db_;
  std::string path_;
  Options options_;
  Logger* logger_;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* oldestAccount_ = nullptr;
  sqlite3_stmt* oldestRows_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
  size_t rows_ = 0;
  size_t bytes_ = 0;
  size_t allRows_ = 0;
  size_t allBytes_ = 0;
};

}  // namespace omra
