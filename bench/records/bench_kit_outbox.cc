// A 30-minute mapping session's records written through the kit's backend store while the back end
// is down: the records pile up in the on-device outbox, and the process's memory must not.
//
// The record rate comes from a simulated session (bench/records/session_records.h). Those records
// are then replayed, renamed to fresh keys, as fast as the outbox takes them until they make up 30
// minutes of session time.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "bench/records/session_records.h"
#include "src/cloud/account_http_client.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/memory_logger.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/backend_record_store.h"

namespace {

using namespace omra;
using Clock = std::chrono::steady_clock;

double residentMegabytes() {
  std::ifstream statm("/proc/self/statm");
  long pages = 0, resident = 0;
  statm >> pages >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

}  // namespace

int main() {
  // 1. The record rate of a simulated mapping session.
  std::string error;
  const std::optional<bench::SessionRecords> recorded = bench::recordSimulatedSession(20, &error);
  if (!recorded) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const std::vector<bench::SessionRecord>& session = recorded->records;
  bench::printSessionRates(*recorded);
  const double perSecond = recorded->recordsPerSecond();
  const double bytesPerSecond = recorded->bytesPerSecond();

  // 2. Thirty minutes of those records with the back end down.
  const auto dir =
      std::filesystem::temp_directory_path() / ("omra-bench-outbox-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  auto dispatcher = std::make_shared<AsioDispatcher>();
  auto http = std::make_shared<CurlHttpClient>(*dispatcher);
  auto logger = std::make_shared<MemoryLogger>();
  BackendRecordStore::Options options;
  options.baseUrl = "http://127.0.0.1:9/prod";  // nothing listens on the discard port
  options.outboxPath = (dir / "outbox.db").string();
  options.accountHeader = kAccountHeader;
  for (TableSchema& s : recordTableSchemas()) {
    if (s.name != TransformResultModel::kTableName) options.tables.push_back(std::move(s));
  }
  options.dispatcher = dispatcher;
  options.closeTimeout = std::chrono::milliseconds(0);
  auto store = BackendRecordStore::open(options, http, logger, &error);
  if (!store) {
    std::fprintf(stderr, "cannot open the outbox: %s\n", error.c_str());
    return 1;
  }
  auto view = storeForAccount(store, "0123456789abcdef0123456789abcdef");

  constexpr double kSessionSeconds = 30 * 60;
  std::atomic<size_t> refused{0};
  int64_t recordId = 0;
  double simulated = 0;
  double baseline = 0;
  const auto start = Clock::now();
  for (int loop = 0; simulated < kSessionSeconds; ++loop) {
    for (const auto& c : session) {
      Item item = c.item;
      item["SessionId"] = AttributeValue::string("BENCH-SESSION");
      item[kRecordIdAttribute] = integerNumber(++recordId);
      view->save(c.table, std::move(item),
                 [&](std::optional<StoreError> e) { refused += e.has_value(); });
    }
    store->waitForSaves();  // as a real session would, the disk keeps up with 20 s of records
    simulated += recorded->scanSeconds;
    if (loop == 0) baseline = residentMegabytes();  // after the caches and the first pages
  }
  store->waitForSaves();
  const double end = residentMegabytes();
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  const auto stats = store->stats();
  std::printf(
      "30-minute session: %lld records (%.1f MB of records) into the outbox in %.1f s, "
      "%zu refused, %zu queued, %llu attempts to reach the back end\n",
      static_cast<long long>(recordId), static_cast<double>(stats.outboxBytes) / 1048576.0, wall,
      refused.load(), stats.outboxRows, static_cast<unsigned long long>(stats.requestsSent));
  std::printf("resident memory: %.1f MB after the first 20 s, %.1f MB at the end\n", baseline, end);
  std::printf("figure kit_outbox_record_rate %.2f records/s\n", perSecond);
  std::printf("figure kit_outbox_record_bytes_rate %.1f KB/s\n", bytesPerSecond / 1024);
  std::printf("figure kit_outbox_rss_growth_mb %.1f MB\n", end - baseline);
  store.reset();
  view.reset();
  std::filesystem::remove_all(dir);
  return refused.load() == 0 ? 0 : 1;
}
