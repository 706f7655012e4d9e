// Records from phones through omra-server's ingest route into its SQLite file, on this machine,
// over loopback:
//   1. the record rate of one simulated mapping session at 60 frames/s (measured, not assumed);
//   2. throughput through the kit's own store: devices save records as fast as they can, each
//      through the kit's backend store (built by the kit's factory, with its SQLite outbox), until
//      all have arrived; beside it the server's SQLite store written directly with the same
//      records (the peer; the ratio is printed);
//   3. sessions sustained: more and more phones, each saving the simulated session's records at
//      the pace they were written, until the server no longer keeps up. A step keeps up when its
//      ingest p99 (a record's save on the phone to its commit in the server's file) stays under
//      250 ms, the phones' queues do not grow by more than a second of records over the step, and
//      nothing is refused.
// The phones of step 3 are light load generators, not the kit: the kit's store spends most of its
// CPU in its outbox (a SQLite file per phone), and 200 of them on the server's two cores would
// measure the phones. Each light phone does what the kit's store does on the wire and nothing
// else: it keeps its saved records in memory as the outbox would (the item text the kit writes,
// byte for byte), and sends them by the kit's rules (one request at a time; the oldest rows, at
// most 100 items or the body limit, through the kit's own IngestBatch, so the same bodies; after
// the kit's 50 ms linger unless 100 rows or half a body wait; the rest at once after an answer;
// the kit's headers, its account's header, the kit's HTTP client). What it leaves out is the
// outbox's durable write on the phone, so its records reach the wire sooner than the kit's would.
// Each phone has its own account and map (made through create_map); they share one HTTP client,
// as one process stands in for them all. The phones run on the same cores as the server, so the
// figures are a floor for the server.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench/records/session_records.h"
#include "server/server_process.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/memory_logger.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/backend_record_store.h"
#include "src/platform/store/ingest_batch.h"
#include "src/platform/store/sqlite_record_store.h"
#include "tests/e2e/ingest_rig_testutil.h"

namespace {

using namespace omra;
using testing::Clock;

constexpr double kP99TargetMs = 250;
constexpr size_t kTimeRing = 1 << 16;  // save times kept per device, by RecordId

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

int64_t nanosNow() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// A session record's item text as the kit's store writes it into its outbox, cut where the
// phone's map UUID and the record's RecordId go.
struct RecordText {
  std::string table;
  std::string parts[3];
  bool recordIdFirst = true;

  static RecordText of(const bench::SessionRecord& r) {
    Item item = r.item;
    item["SessionId"] = AttributeValue::string("@SESSION@");
    item[kRecordIdAttribute] = AttributeValue::numberText("@RECORD@");
    const std::string text = *itemToJsonText(item);
    const size_t s = text.find("@SESSION@"), n = text.find("@RECORD@");
    RecordText t{r.table, {}, n < s};
    const size_t first = std::min(s, n), second = std::max(s, n);
    const size_t firstLen = n < s ? 8 : 9;
    t.parts[0] = text.substr(0, first);
    t.parts[1] = text.substr(first + firstLen, second - first - firstLen);
    t.parts[2] = text.substr(second + (n < s ? 9 : 8));
    return t;
  }
  std::string compose(const std::string& session, int64_t recordId) const {
    const std::string id = std::to_string(recordId);
    const std::string& a = recordIdFirst ? id : session;
    const std::string& b = recordIdFirst ? session : id;
    std::string out;
    out.reserve(parts[0].size() + parts[1].size() + parts[2].size() + a.size() + b.size());
    out.append(parts[0]).append(a).append(parts[1]).append(b).append(parts[2]);
    return out;
  }
};

// One simulated phone: its account, map, sender and when each of its records was saved.
struct Device {
  std::string account;
  std::string session;  // the map's UUID
  // Through the kit (throughput): its backend store and the account's view of it.
  std::shared_ptr<RecordStore> store;
  BackendRecordStore* backend = nullptr;
  std::shared_ptr<RecordStore> view;
  std::unique_ptr<std::atomic<int64_t>[]> savedAt =
      std::make_unique<std::atomic<int64_t>[]>(kTimeRing);
  int64_t nextRecordId = 1;
  // Pacing: the record to save next and when its loop through the session began.
  bool pacing = false;
  size_t next = 0;
  double loopStart = 0;  // seconds since the run began
  // The light phone's outbox, guarded by mu: rows oldest first, the first `sent` of them out.
  struct Row {
    const std::string* table;
    std::string text;
  };
  std::mutex mu;
  std::deque<Row> rows;
  size_t rowBytes = 0;
  size_t sent = 0;
  bool inFlight = false;
  Clock::time_point firstRowAt, retryAt;
};

// Save-to-commit latencies, filled by the server's writes. Thread-safe.
class Latencies {
 public:
  void add(const std::vector<double>& ms) {
    std::lock_guard lock(mu_);
    if (on_) samples_.insert(samples_.end(), ms.begin(), ms.end());
  }
  void start() {
    std::lock_guard lock(mu_);
    samples_.clear();
    on_ = true;
  }
  std::vector<double> stop() {
    std::lock_guard lock(mu_);
    on_ = false;
    return std::move(samples_);
  }

 private:
  std::mutex mu_;
  bool on_ = false;
  std::vector<double> samples_;
};

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  const size_t k = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
  return v[k];
}

double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

class Bench {
 public:
  Bench(const bench::SessionRecords& session, const std::string& dir)
      : session_(session), dir_(dir), server_(dir, serverOptions()) {
    for (const bench::SessionRecord& r : session.records) texts_.push_back(RecordText::of(r));
  }

  // Whether every pre-cut text, filled in, is the text the kit's store writes for that record.
  bool textsMatchTheKit() const {
    const std::string session = "00000000-0000-4000-8000-00000000abcd";
    for (size_t k = 0; k < texts_.size(); ++k) {
      Item item = session_.records[k].item;
      item["SessionId"] = AttributeValue::string(session);
      item[kRecordIdAttribute] = integerNumber(static_cast<int64_t>(k) + 1000);
      if (texts_[k].compose(session, static_cast<int64_t>(k) + 1000) != itemToJsonText(item)) {
        return false;
      }
    }
    return true;
  }

  bool start(std::string* error) {
    if (!server_.start(error)) return false;
    dispatcher_ = std::make_shared<AsioDispatcher>();
    CurlHttpOptions httpOptions;
    httpOptions.idleTimeoutSeconds = 30;
    http_ = std::make_shared<CurlHttpClient>(*dispatcher_, httpOptions);
    logger_ = std::make_shared<MemoryLogger>();
    return true;
  }

  ~Bench() {
    // Light phones' answers first (their completions hold the devices), then the kit's stores
    // (nothing waits on close: their flush time is 0), then the client.
    testing::waitUntil(
        [&] {
          for (auto& d : devices_) {
            std::lock_guard lock(d->mu);
            if (d->inFlight) return false;
          }
          return true;
        },
        std::chrono::seconds(30));
    devices_.clear();
    if (http_) http_->shutdown();
    http_.reset();
    dispatcher_.reset();
    server_.stop();
  }

  testing::IngestServer::Options serverOptions() {
    testing::IngestServer::Options o;
    o.onWritten = [this](const std::vector<TableItem>& items) { written(items); };
    return o;
  }

  // Opens n more devices, each with a map of its own; through the kit's store or light.
  bool addDevices(size_t n, bool kit, std::string* error) {
    for (size_t i = 0; i < n; ++i) {
      auto d = std::make_shared<Device>();
      const size_t number = allDevices_++;
      d->account = testing::accountDigest("device " + std::to_string(number));
      std::optional<std::string> map =
          server_.createMap(d->account, "room-" + std::to_string(number), error);
      if (!map) return false;
      d->session = *map;
      if (kit) {
        d->store = testing::openKitRecordStore(
            server_.url(), dir_ + "/outbox-" + std::to_string(number) + ".db", http_, dispatcher_,
            logger_, /*flushTimeoutSeconds=*/0, error);
        if (!d->store) return false;
        d->backend = dynamic_cast<BackendRecordStore*>(d->store.get());
        d->view = storeForAccount(d->store, d->account);
      }
      {
        std::lock_guard lock(bySessionMu_);
        bySession_[d->session] = d;
      }
      devices_.push_back(std::move(d));
    }
    return true;
  }

  // Saves one record of the session as the device's next, renamed to its session.
  void save(Device& d, const bench::SessionRecord& r) {
    Item item = r.item;
    const int64_t id = d.nextRecordId++;
    item["SessionId"] = AttributeValue::string(d.session);
    item[kRecordIdAttribute] = integerNumber(id);
    d.savedAt[static_cast<size_t>(id) % kTimeRing].store(nanosNow(), std::memory_order_relaxed);
    saved_.fetch_add(1, std::memory_order_relaxed);
    d.view->save(r.table, std::move(item), [this](std::optional<StoreError> e) {
      if (e) refused_.fetch_add(1, std::memory_order_relaxed);
    });
  }

  // Saves the session's record k as the light phone's next: into its outbox, then on the wire
  // when the kit's rules say so.
  void lightSave(const std::shared_ptr<Device>& d, size_t k) {
    const int64_t id = d->nextRecordId++;
    std::string text = texts_[k].compose(d->session, id);
    d->savedAt[static_cast<size_t>(id) % kTimeRing].store(nanosNow(), std::memory_order_relaxed);
    saved_.fetch_add(1, std::memory_order_relaxed);
    {
      std::lock_guard lock(d->mu);
      if (d->rows.empty()) d->firstRowAt = Clock::now();
      d->rowBytes += text.size();
      d->rows.push_back({&texts_[k].table, std::move(text)});
    }
    trySend(d);
  }

  // The kit's store's sending rule: one request at a time; rows wait for the linger unless a
  // batch's worth waits; after a failure, a pause.
  void trySend(const std::shared_ptr<Device>& d) {
    constexpr size_t kBatchItems = 100;
    constexpr auto kLinger = std::chrono::milliseconds(50);
    HttpRequest request;
    {
      std::lock_guard lock(d->mu);
      if (d->inFlight || d->rows.empty()) return;
      const auto now = Clock::now();
      const bool full = d->rows.size() >= kBatchItems || d->rowBytes >= kMaxIngestBodyBytes / 2;
      if (now < std::max(d->retryAt, full ? now : d->firstRowAt + kLinger)) return;
      IngestBatch batch(kMaxIngestBodyBytes, kBatchItems);
      size_t n = 0;
      while (n < d->rows.size() &&
             batch.add(static_cast<int64_t>(n), *d->rows[n].table, d->rows[n].text)) {
        ++n;
      }
      d->sent = n;
      d->inFlight = true;
      request.method = HttpMethod::kPost;
      request.url = server_.url() + "/prod/records/batch_write";
      request.headers["Content-Type"] = "application/json";
      request.headers["X-Omra-Account"] = d->account;
      request.body = batch.body();
    }
    http_->send(std::move(request), [this, d](HttpResponse answer) {
      {
        std::lock_guard lock(d->mu);
        d->inFlight = false;
        const bool ok = answer.status >= 200 && answer.status < 300;
        if (!ok) refused_.fetch_add(1, std::memory_order_relaxed);
        if (ok || (answer.status >= 400 && answer.status < 500)) {
          for (size_t k = 0; k < d->sent; ++k) {
            d->rowBytes -= d->rows.front().text.size();
            d->rows.pop_front();
          }
        } else {
          d->retryAt = Clock::now() + std::chrono::milliseconds(100);
        }
        d->sent = 0;
      }
      trySend(d);
    });
  }

  // Throughput: the newest `devices` devices each save `perDevice` records at once; the time
  // until every one of them is in the server's file.
  double throughput(size_t first, size_t perDevice, std::string* error) {
    const uint64_t before = committed_.load();
    const size_t n = devices_.size() - first;
    const auto start = Clock::now();
    for (size_t k = 0; k < perDevice; ++k) {
      for (size_t i = first; i < devices_.size(); ++i) {
        save(*devices_[i], session_.records[k % session_.records.size()]);
      }
    }
    const uint64_t target = before + n * perDevice;
    if (!testing::waitUntil([&] { return committed_.load() >= target; },
                            std::chrono::seconds(120))) {
      *error = "the records did not all arrive within 120 s";
      return 0;
    }
    return static_cast<double>(n * perDevice) / secondsSince(start);
  }

  struct Step {
    size_t sessions = 0;
    double p50Ms = 0, p99Ms = 0;
    size_t samples = 0;
    double backlogGrowthSeconds = 0;  // of records, across all devices
    double paceLagMs = 0;             // how far the feeding fell behind its schedule
    double savedPerSecond = 0, committedPerSecond = 0;
    double cpuShare = 0;  // CPU seconds of this process per wall second
    uint64_t refused = 0;
    bool keptUp = false;
  };

  // Every device saves at the session's pace for warm + measure seconds.
  Step paced(double warmSeconds, double measureSeconds) {
    const double length = session_.scanSeconds;
    const double runStart = secondsSince(epoch_);
    std::mt19937_64 random(devices_.size());
    for (auto& d : devices_) {
      if (d->pacing) {
        d->loopStart += runStart - pausedAt_;  // no burst for the time the last step ended
        continue;
      }
      // Each joins at a random point of the session, so that they do not save in step.
      d->pacing = true;
      d->next = std::uniform_int_distribution<size_t>(0, session_.records.size() - 1)(random);
      d->loopStart = runStart - session_.records[d->next].seconds;
    }
    Step step;
    step.sessions = devices_.size();
    const uint64_t refusedBefore = refused_.load();
    const auto backlog = [&] {
      size_t rows = 0;
      for (auto& d : devices_) {
        std::lock_guard lock(d->mu);
        rows += d->rows.size();
      }
      return rows;
    };
    double lag = 0;
    size_t backlogAtStart = 0;
    uint64_t savedAtStart = 0, committedAtStart = 0;
    double cpuAtStart = 0;
    bool measuring = false;
    const double end = runStart + warmSeconds + measureSeconds;
    while (true) {
      const double now = secondsSince(epoch_);
      if (!measuring && now >= runStart + warmSeconds) {
        measuring = true;
        backlogAtStart = backlog();
        savedAtStart = saved_.load();
        committedAtStart = committed_.load();
        cpuAtStart = cpuSeconds();
        lag = 0;
        latencies_.start();
      }
      if (now >= end) break;
      for (auto& d : devices_) {
        while (true) {
          const bench::SessionRecord& r = session_.records[d->next];
          const double due = d->loopStart + r.seconds;
          if (due > now) break;
          if (measuring) lag = std::max(lag, now - due);
          lightSave(d, d->next);
          if (++d->next == session_.records.size()) {
            d->next = 0;
            d->loopStart += length;
          }
        }
        trySend(d);  // a linger may have ended
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pausedAt_ = secondsSince(epoch_);
    const std::vector<double> ms = latencies_.stop();
    const double wall = measureSeconds;
    step.cpuShare = (cpuSeconds() - cpuAtStart) / wall;
    step.samples = ms.size();
    step.p50Ms = percentile(ms, 0.50);
    step.p99Ms = percentile(ms, 0.99);
    const double perSecond = session_.recordsPerSecond() * static_cast<double>(step.sessions);
    step.backlogGrowthSeconds =
        (static_cast<double>(backlog()) - static_cast<double>(backlogAtStart)) / perSecond;
    step.savedPerSecond = static_cast<double>(saved_.load() - savedAtStart) / wall;
    step.committedPerSecond = static_cast<double>(committed_.load() - committedAtStart) / wall;
    step.paceLagMs = lag * 1000;
    step.refused = refused_.load() - refusedBefore;
    step.keptUp = step.samples > 0 && step.p99Ms < kP99TargetMs &&
                  step.backlogGrowthSeconds < 1.0 && step.refused == 0;
    return step;
  }

  // Lets the devices' queues drain (or not) before the next step, at most `seconds`.
  void settle(double seconds) {
    testing::waitUntil(
        [&] {
          for (auto& d : devices_) {
            std::lock_guard lock(d->mu);
            if (!d->rows.empty()) return false;
          }
          return true;
        },
        std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000)));
  }

  size_t deviceCount() const { return devices_.size(); }
  uint64_t refused() const { return refused_.load(); }

 private:
  // On the server's request threads, after a batch is committed.
  void written(const std::vector<TableItem>& items) {
    const int64_t now = nanosNow();
    std::vector<double> ms;
    ms.reserve(items.size());
    {
      std::lock_guard lock(bySessionMu_);
      for (const TableItem& t : items) {
        const auto session = t.item.find("SessionId");  // the server's own tables have none
        if (session == t.item.end()) continue;
        const auto it = bySession_.find(session->second.text);
        std::optional<int64_t> id;
        if (it == bySession_.end() || !readInteger(t.item, kRecordIdAttribute, id) || !id) continue;
        const int64_t at = it->second->savedAt[static_cast<size_t>(*id) % kTimeRing].load(
            std::memory_order_relaxed);
        ms.push_back(static_cast<double>(now - at) / 1e6);
      }
    }
    committed_.fetch_add(ms.size());
    latencies_.add(ms);
  }

  const bench::SessionRecords& session_;
  const std::string dir_;
  const Clock::time_point epoch_ = Clock::now();
  testing::IngestServer server_;
  std::shared_ptr<AsioDispatcher> dispatcher_;
  std::shared_ptr<CurlHttpClient> http_;
  std::shared_ptr<MemoryLogger> logger_;
  std::mutex bySessionMu_;
  std::unordered_map<std::string, std::shared_ptr<Device>> bySession_;
  std::vector<std::shared_ptr<Device>> devices_;
  std::vector<RecordText> texts_;  // by session record
  size_t allDevices_ = 0;
  double pausedAt_ = 0;  // when the last paced step ended
  std::atomic<uint64_t> saved_{0}, committed_{0}, refused_{0};
  Latencies latencies_;
};

// Items per second into SQLite through the store itself, the same records under fresh keys.
double directSqliteRate(const bench::SessionRecords& session, const std::string& path, size_t n,
                        std::string* error) {
  std::unique_ptr<SqliteRecordStore> store = SqliteRecordStore::open(path, error);
  if (!store || ensureRecordTables(*store)) return 0;
  std::atomic<size_t> failed{0};
  const auto start = Clock::now();
  for (size_t i = 0; i < n; ++i) {
    Item item = session.records[i % session.records.size()].item;
    item["SessionId"] = AttributeValue::string("DIRECT-" + std::to_string(i % 8));
    item[kRecordIdAttribute] = integerNumber(static_cast<int64_t>(i + 1));
    store->save(session.records[i % session.records.size()].table, std::move(item),
                [&](std::optional<StoreError> e) { failed += e.has_value(); });
  }
  store->waitForSaves();
  const double rate = static_cast<double>(n) / secondsSince(start);
  if (failed > 0) {
    *error = std::to_string(failed.load()) + " direct saves failed";
    return 0;
  }
  return rate;
}

}  // namespace

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  server::raiseOpenFileLimit();
  server::tuneMallocForServer();

  std::string error;
  const std::optional<bench::SessionRecords> session =
      bench::recordSimulatedSession(quick ? 10 : 20, &error);
  if (!session) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  bench::printSessionRates(*session);
  const double perSession = session->recordsPerSecond();

  testing::TempFolder dir("bench-ingest");
  // 2. Throughput, and the direct peer in the same run.
  const size_t throughputRecords = quick ? 20000 : 60000;
  const double direct =
      directSqliteRate(*session, dir.path() + "/direct.db", throughputRecords, &error);
  if (direct <= 0) {
    std::fprintf(stderr, "direct SQLite: %s\n", error.c_str());
    return 1;
  }
  double ingest = 0;
  {
    testing::TempFolder throughputDir("bench-ingest-throughput");
    Bench bench(*session, throughputDir.path());
    constexpr size_t kDevices = 8;
    if (!bench.start(&error) || !bench.addDevices(kDevices, /*kit=*/true, &error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      return 1;
    }
    ingest = bench.throughput(0, throughputRecords / kDevices, &error);
    if (ingest <= 0 || bench.refused() > 0) {
      std::fprintf(stderr, "ingest throughput: %s (%llu refused)\n", error.c_str(),
                   static_cast<unsigned long long>(bench.refused()));
      return 1;
    }
  }
  std::printf(
      "throughput: %zu records from 8 devices through omra-server: %.0f items/s; the "
      "SQLite store written directly: %.0f items/s\n",
      throughputRecords, ingest, direct);

  // 3. Sessions sustained at the simulated session's pace.
  Bench bench(*session, dir.path());
  if (!bench.textsMatchTheKit()) {
    std::fprintf(stderr, "the light phones' record texts differ from the kit's\n");
    return 1;
  }
  if (!bench.start(&error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  // Finer where a loaded machine tends to stop; the ramp ends at the first step that falls behind.
  const std::vector<size_t> steps =
      quick ? std::vector<size_t>{10, 25, 50, 100, 200}
            : std::vector<size_t>{10, 20, 30, 40, 50, 75, 100, 150, 200, 250, 300, 400};
  const double warm = quick ? 1.5 : 2, measure = quick ? 3 : 5;
  size_t sustained = 0;
  double sustainedP99 = 0;
  std::printf("%8s %10s %10s %9s %9s %12s %12s %10s %8s %s\n", "sessions", "saved/s", "stored/s",
              "p50 ms", "p99 ms", "backlog +s", "pace lag ms", "cpu/wall", "refused", "verdict");
  for (size_t target : steps) {
    if (!bench.addDevices(target - bench.deviceCount(), /*kit=*/false, &error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      return 1;
    }
    const Bench::Step s = bench.paced(warm, measure);
    std::printf("%8zu %10.0f %10.0f %9.1f %9.1f %12.2f %12.1f %10.2f %8llu %s\n", s.sessions,
                s.savedPerSecond, s.committedPerSecond, s.p50Ms, s.p99Ms, s.backlogGrowthSeconds,
                s.paceLagMs, s.cpuShare, static_cast<unsigned long long>(s.refused),
                s.keptUp ? "keeps up" : "falls behind");
    std::fflush(stdout);
    if (!s.keptUp) break;
    sustained = s.sessions;
    sustainedP99 = s.p99Ms;
  }
  bench.settle(5);

  std::printf("figure record_ingest_session_records_per_s %.1f records/s\n", perSession);
  std::printf("figure record_ingest_items_per_s %.0f items/s\n", ingest);
  std::printf("figure record_ingest_direct_sqlite_items_per_s %.0f items/s\n", direct);
  std::printf("figure record_ingest_vs_direct_sqlite %.2f ratio\n", ingest / direct);
  std::printf("figure record_ingest_sessions_sustained %zu sessions\n", sustained);
  std::printf("figure record_ingest_p99_ms %.1f ms\n", sustainedP99);
  return 0;
}
