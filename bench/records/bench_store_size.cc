// Bytes on disk per minute of mapping in the back end's SQLite record store, and how fast items
// read back, for the compact row form beside the JSON-text layout files had before it (the peer,
// same run, same records).
//
// The records are those of one simulated mapping session (bench/records/session_records.h: the
// simulator's recording fed through an OmraSession in real time). They are written in the order
// and batches the kit's store would send them (one batch per second of the session), the WAL is
// checkpointed (TRUNCATE), and the stored size is the database file plus what is left of its WAL.
//
// "The data's own size" is the sum over the items of DynamoDB's item size (itemSizeBytes):
// attribute-name bytes, string and binary bytes as they are (binary raw, not base64), numbers by
// their significant digits two to a byte plus one, string maps with one byte per entry and three
// per map. It is what the records would be billed as in DynamoDB, so the overhead ratio is stored
// bytes over that. Per minute figures scale the session's bytes by 60 / seconds scanned; the
// file's fixed part (empty tables and indexes) is counted in and scaled too, so a longer session
// would give a slightly lower figure.
//
// Read speed: every item of the session read back through query() pages, table by table, repeated
// for at least half a second per form; items per CPU second of the reading thread (reads run on
// the caller's thread), so that other load on the shared machine does not skew the comparison;
// and the rows alone decoded without SQLite, the same way.
#include <sqlite3.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "bench/records/session_records.h"
#include "src/cloud/compression.h"
#include "src/cloud/record_tables.h"
#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/item_codec.h"
#include "src/platform/store/sqlite_record_store.h"

namespace {

using namespace omra;
namespace fs = std::filesystem;

struct Variant {
  const char* name;
  SqliteRecordStore::Options options;
};

struct Result {
  size_t storedBytes = 0;
  double readItemsPerSecond = 0;
  size_t itemsRead = 0;
};

double cpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

size_t fileSize(const fs::path& p) {
  std::error_code ec;
  const auto n = fs::file_size(p, ec);
  return ec ? 0 : static_cast<size_t>(n);
}

// Items per CPU second that decode turns rows back into (each row once per round).
template <class Decode>
double decodeRate(const std::vector<std::string>& rows, Decode&& decode, bool* ok) {
  size_t items = 0;
  const double start = cpuSeconds();
  double elapsed = 0;
  do {
    for (const std::string& row : rows) *ok = decode(row) && *ok;
    items += rows.size();
    elapsed = cpuSeconds() - start;
  } while (elapsed < 0.3);
  return static_cast<double>(items) / elapsed;
}

// Writes the session into a fresh file in the variant's form; none with *error set on a failure.
std::optional<Result> measure(const bench::SessionRecords& session, const Variant& v,
                              const fs::path& dir, std::string* error) {
  const fs::path path = dir / (std::string(v.name) + ".db");
  auto store = SqliteRecordStore::open(path.string(), v.options, error);
  if (!store) return std::nullopt;
  if (auto e = ensureRecordTables(*store)) {
    *error = e->message;
    return std::nullopt;
  }
  std::vector<TableItem> batch;
  double batchEnd = 1;
  auto flush = [&]() -> bool {
    if (batch.empty()) return true;
    if (auto e = store->writeBatch(batch)) {
      *error = e->message;
      return false;
    }
    batch.clear();
    return true;
  };
  std::map<std::string, std::set<std::string>> sessions;  // table -> hash key values
  for (const bench::SessionRecord& r : session.records) {
    if (r.seconds >= batchEnd) {
      if (!flush()) return std::nullopt;
      while (r.seconds >= batchEnd) batchEnd += 1;
    }
    batch.push_back({r.table, r.item});
    sessions[r.table].insert(r.item.at("SessionId").text);
  }
  if (!flush()) return std::nullopt;

  Result result;
  {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_busy_timeout(db, 5000);
    const int rc = sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    if (rc != SQLITE_OK) {
      *error = "checkpoint failed";
      return std::nullopt;
    }
    result.storedBytes = fileSize(path) + fileSize(path.string() + "-wal");
  }

  const double start = cpuSeconds();
  double elapsed = 0;
  do {
    for (const auto& [table, ids] : sessions) {
      for (const std::string& id : ids) {
        std::optional<StoreError> e;
        result.itemsRead += queryAll(*store, table, AttributeValue::string(id), &e).size();
        if (e) {
          *error = e->message;
          return std::nullopt;
        }
      }
    }
    elapsed = cpuSeconds() - start;
  } while (elapsed < 0.5);
  result.readItemsPerSecond = static_cast<double>(result.itemsRead) / elapsed;
  return result;
}

}  // namespace

int main() {
  std::string error;
  const std::optional<bench::SessionRecords> session = bench::recordSimulatedSession(30, &error);
  if (!session) {
    std::fprintf(stderr, "no session: %s\n", error.c_str());
    return 1;
  }
  bench::printSessionRates(*session);

  size_t dataBytes = 0;
  std::map<std::string, std::pair<size_t, size_t>> perTable;  // items, bytes
  for (const bench::SessionRecord& r : session->records) {
    const size_t n = itemSizeBytes(r.item);
    dataBytes += n;
    perTable[r.table].first += 1;
    perTable[r.table].second += n;
  }
  for (const auto& [table, counts] : perTable) {
    std::printf("  %-28s %6zu items, %8.0f data bytes per item\n", table.c_str(), counts.first,
                static_cast<double>(counts.second) / static_cast<double>(counts.first));
  }
  // Whether deflating binary values once more would pay: the kit's binary attributes are already
  // deflated text, so the stored form keeps them as they are.
  size_t binaryBytes = 0, deflatedBytes = 0;
  for (const bench::SessionRecord& r : session->records) {
    for (const auto& [name, value] : r.item) {
      if (value.type != AttributeValue::Type::kBytes) continue;
      binaryBytes += value.text.size();
      const std::optional<std::string> again = compress(value.text);
      deflatedBytes += again ? std::min(again->size(), value.text.size()) : value.text.size();
    }
  }
  std::printf("binary values: %zu bytes, %zu deflated again (%.1f%% saved)\n", binaryBytes,
              deflatedBytes,
              binaryBytes > 0 ? 100.0 * static_cast<double>(binaryBytes - deflatedBytes) /
                                    static_cast<double>(binaryBytes)
                              : 0.0);
  // The rows alone, without SQLite: the compact decoder against the JSON reader it replaces.
  std::vector<std::string> compactRows, jsonRows;
  for (const bench::SessionRecord& r : session->records) {
    compactRows.push_back(encodeItem(r.item));
    jsonRows.push_back(itemToJsonText(r.item).value_or(""));
  }
  bool decoded = true;
  const double compactDecode = decodeRate(
      compactRows, [](const std::string& row) { return decodeItem(row); }, &decoded);
  const double jsonDecode = decodeRate(
      jsonRows,
      [](const std::string& row) {
        const auto json = readJson(row);
        return json ? itemFromJson(*json) : std::nullopt;
      },
      &decoded);
  if (!decoded) {
    std::fprintf(stderr, "a row did not decode\n");
    return 1;
  }
  const double perMinute = 60 / session->scanSeconds;
  std::printf("data: %zu bytes over %.1f s, %.0f bytes per mapping minute\n", dataBytes,
              session->scanSeconds, static_cast<double>(dataBytes) * perMinute);

  SqliteRecordStore::Options jsonText;
  jsonText.rowForm = SqliteRecordStore::Options::RowForm::kJsonText;
  const Variant variants[] = {{"compact", {}}, {"json_text", jsonText}};

  const fs::path dir = fs::temp_directory_path() / ("omra-bench-size-" + std::to_string(getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  std::map<std::string, Result> results;
  int status = 0;
  for (const Variant& v : variants) {
    const auto r = measure(*session, v, dir, &error);
    if (!r) {
      std::fprintf(stderr, "%s: %s\n", v.name, error.c_str());
      status = 1;
      break;
    }
    std::printf("%-10s %10zu bytes stored, %.0f items read\n", v.name, r->storedBytes,
                static_cast<double>(r->itemsRead));
    results[v.name] = *r;
  }
  if (status == 0) {
    for (const Variant& v : variants) {
      const Result& r = results[v.name];
      const std::string suffix = std::string(v.name) == "compact" ? "" : "_" + std::string(v.name);
      std::printf("figure store_bytes_per_mapping_minute%s %.0f bytes/min\n", suffix.c_str(),
                  static_cast<double>(r.storedBytes) * perMinute);
      std::printf("figure store_overhead_ratio%s %.3f ratio\n", suffix.c_str(),
                  static_cast<double>(r.storedBytes) / static_cast<double>(dataBytes));
      std::printf("figure store_read_items_per_s%s %.0f items/s\n", suffix.c_str(),
                  r.readItemsPerSecond);
    }
    std::printf("figure store_row_decode_items_per_s %.0f items/s\n", compactDecode);
    std::printf("figure store_row_decode_items_per_s_json_text %.0f items/s\n", jsonDecode);
    std::printf("figure store_read_speedup %.1f ratio\n",
                results["compact"].readItemsPerSecond / results["json_text"].readItemsPerSecond);
  }
  fs::remove_all(dir);
  return status;
}
