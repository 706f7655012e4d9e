// The kit's records reach omra-server whatever happens between them: the back end away in the
// middle of a session, the kit's process killed, the back end refusing for a while (429, 503).
// Real server over loopback and SQLite, the kit's own backend store and outbox.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <set>
#include <thread>

#include "sim/scenario.h"
#include "src/platform/store/backend_record_store.h"
#include "src/platform/store/retry_backoff.h"
#include "tests/e2e/command_testutil.h"
#include "tests/e2e/ingest_rig_testutil.h"
#include "tools/runner/session_driver.h"

namespace omra::testing {
namespace {

using namespace std::chrono_literals;

// Counts how often the server committed each record. Thread-safe.
class WriteCounter {
 public:
  std::function<void(const std::vector<TableItem>&)> sink() {
    return [this](const std::vector<TableItem>& items) {
      std::lock_guard lock(mu_);
      for (const TableItem& t : items) {
        const auto session = t.item.find("SessionId");
        const auto id = t.item.find("RecordId");
        if (session == t.item.end() || id == t.item.end()) continue;  // the server's own tables
        ++counts_[{t.table, session->second.text, std::stoll(id->second.text)}];
        ++total_;
      }
    };
  }
  size_t total() const {
    std::lock_guard lock(mu_);
    return total_;
  }
  std::map<RecordKey, int> counts() const {
    std::lock_guard lock(mu_);
    return counts_;
  }

 private:
  mutable std::mutex mu_;
  std::map<RecordKey, int> counts_;
  size_t total_ = 0;
};

IngestServer::Options watchedBy(WriteCounter& writes, server::QuotaOptions quotas = {}) {
  IngestServer::Options o;
  o.quotas = quotas;
  o.onWritten = writes.sink();
  return o;
}

template <class Keys>
std::set<RecordKey> asSet(const Keys& keys) {
  return std::set<RecordKey>(keys.begin(), keys.end());
}

BackendRecordStore& backendOf(DeviceKit& kit) {
  return dynamic_cast<BackendRecordStore&>(*kit.records);
}

// A mapping session at real time loses the back end for 10 s once its records flow; afterwards
// the server holds exactly what the session wrote: every record, each once, none changed.
TEST(RecordIngestFaults, BackEndDownForTenSecondsMidSessionLosesNothing) {
  TempFolder dir("ingest-down");
  WriteCounter writes;
  IngestServer server(dir.path(), watchedBy(writes));
  std::string error;
  ASSERT_TRUE(server.start(&error)) << error;
  std::unique_ptr<DeviceKit> kit = openDeviceKit(server.url(), dir.path() + "/outbox.db", &error);
  ASSERT_TRUE(kit) << error;
  auto capture = std::make_shared<CapturingStore>(kit->records);
  const tools::KitServices services{kit->dispatcher, kit->http, server.url(), nullptr, capture};

  sim::ScenarioOptions scenarioOptions;
  scenarioOptions.seed = 11;
  scenarioOptions.mappingSeconds = 16;
  const sim::Scenario scenario = sim::makeScenario(scenarioOptions);
  tools::DriveOptions drive;
  drive.mode = SessionMode::mapping;
  drive.speed = 1;
  tools::DriveResult result;
  std::thread feeder([&] { result = tools::driveSession(services, scenario.mapping, drive); });

  const bool flowing = waitUntil([&] { return writes.total() >= 50; }, 20s);
  server.stop();
  std::this_thread::sleep_for(10s);
  const BackendRecordStore::Stats whileDown = backendOf(*kit).stats();
  const bool restarted = server.start(&error);
  feeder.join();
  ASSERT_TRUE(flowing) << "no records reached the server";
  ASSERT_TRUE(restarted) << error;
  ASSERT_TRUE(result.opened());
  // The outage was real: requests failed and records waited on the device.
  EXPECT_GT(whileDown.outboxRows, 100u);
  EXPECT_GT(whileDown.consecutiveFailures, 0);
  EXPECT_TRUE(kit->records->flush(30s)) << backendOf(*kit).stats().outboxRows << " left";

  const std::vector<CapturingStore::Saved> saved = capture->saved();
  ASSERT_GT(saved.size(), 300u);  // fewer under sanitizers, which slow the kit down
  std::set<std::string> sessions;
  std::vector<int64_t> ids;
  for (const CapturingStore::Saved& s : saved) {
    ASSERT_TRUE(s.completed);
    ASSERT_FALSE(s.outcome) << s.outcome->message;
    sessions.insert(s.item.at("SessionId").text);
    ids.push_back(std::stoll(s.item.at("RecordId").text));
  }
  ASSERT_EQ(sessions.size(), 1u);
  const std::string session = *sessions.begin();
  // The kit stamped 1..N: a gap or a repeat on the server is the transport's doing.
  std::sort(ids.begin(), ids.end());
  for (size_t i = 0; i < ids.size(); ++i) ASSERT_EQ(ids[i], static_cast<int64_t>(i + 1));

  const std::optional<StoredRecords> stored = server.recordsOf(session, &error);
  ASSERT_TRUE(stored) << error;
  std::map<std::string, size_t> savedPerTable, storedPerTable;
  for (const CapturingStore::Saved& s : saved) ++savedPerTable[s.table];
  for (const auto& [table, items] : *stored) storedPerTable[table] = items.size();
  EXPECT_EQ(storedPerTable, savedPerTable);
  for (const CapturingStore::Saved& s : saved) {
    const int64_t id = std::stoll(s.item.at("RecordId").text);
    const auto table = stored->find(s.table);
    ASSERT_TRUE(table != stored->end() && table->second.contains(id)) << s.table << " " << id;
    EXPECT_EQ(table->second.at(id), s.item) << s.table << " " << id;
  }
  // A batch may be committed twice only when its answer was lost as the server stopped.
  size_t again = 0;
  for (const auto& [key, n] : writes.counts()) again += n > 1 ? 1 : 0;
  EXPECT_LE(again, 100u);
}

// `omra replay` is killed (SIGKILL) while the back end is away and records wait in its outbox;
// the next open of that outbox delivers every record the killed process had made durable.
TEST(RecordIngestFaults, KitKilledMidSessionLeavesAnOutboxTheNextOpenDrains) {
  TempFolder dir("ingest-kill");
  WriteCounter writes;
  IngestServer server(dir.path(), watchedBy(writes));
  std::string error;
  ASSERT_TRUE(server.start(&error)) << error;
  const std::string recording = dir.path() + "/mapping.jsonl";
  const std::string outbox = dir.path() + "/outbox.db";
  const std::string log = dir.path() + "/replay.log";
  ASSERT_EQ(omra("record --seed 7 --seconds 20 " + recording).exitCode, 0);

  const pid_t child =
      spawnOmra({"replay", recording, "--server", server.url(), "--outbox", outbox}, log);
  ASSERT_GT(child, 0);
  const bool flowing = waitUntil([&] { return writes.total() >= 50; }, 30s);
  server.stop();
  std::this_thread::sleep_for(1500ms);  // the session keeps recording into its outbox
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(flowing) << fileText(log);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << fileText(log);

  const std::optional<std::vector<RecordKey>> left = outboxRows(outbox, &error);
  ASSERT_TRUE(left) << error;
  ASSERT_GT(left->size(), 50u) << "the killed process left nothing to deliver";
  const std::string session = left->front().session;
  ASSERT_TRUE(server.start(&error)) << error;
  const std::optional<StoredRecords> before = server.recordsOf(session, &error);
  ASSERT_TRUE(before) << error;
  std::set<RecordKey> durable = asSet(*left);
  for (const RecordKey& k : keysOf(*before, session)) durable.insert(k);

  {
    std::unique_ptr<DeviceKit> next = openDeviceKit(server.url(), outbox, &error);
    ASSERT_TRUE(next) << error;
    EXPECT_TRUE(next->records->flush(20s));
  }
  const std::optional<StoredRecords> after = server.recordsOf(session, &error);
  ASSERT_TRUE(after) << error;
  EXPECT_EQ(asSet(keysOf(*after, session)), durable);
  const std::optional<std::vector<RecordKey>> remaining = outboxRows(outbox, &error);
  ASSERT_TRUE(remaining) << error;
  EXPECT_TRUE(remaining->empty()) << remaining->size() << " rows left";
}

// The back end refuses for a while, by quota (429 with Retry-After) or because its store fails
// (503). With the kit's own backoff: no retry before Retry-After, none later than the backoff's
// ceiling allows, every record stored exactly once.
TEST(RecordIngestFaults, RefusalsAreRetriedWithinBoundsAndLoseNothing) {
  server::QuotaOptions tight;
  tight.requestsPerSecond = 1;
  tight.requestBurst = 1;
  tight.bytesPerSecond = 0;
  struct Case {
    const char* name;
    server::QuotaOptions quotas;
    bool storeOutage;
    long refusal;
  };
  const Case cases[] = {
      {"the account's request quota", tight, false, 429},
      {"a failing store", {}, true, 503},
  };
  const RetryBackoff kitBackoff(RetryBackoff::Options{});
  constexpr auto kSlack = 1500ms;  // wake-up and outbox reads on a loaded machine
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempFolder dir("ingest-refusals");
    std::atomic<int> refused{0};  // outlives the kit, whose saves count into it
    WriteCounter writes;
    IngestServer server(dir.path(), watchedBy(writes, c.quotas));
    std::string error;
    ASSERT_TRUE(server.start(&error)) << error;
    const std::string account = accountDigest("refusals");
    const std::optional<std::string> session = server.createMap(account, "room", &error);
    ASSERT_TRUE(session) << error;
    std::unique_ptr<DeviceKit> kit = openDeviceKit(server.url(), dir.path() + "/outbox.db", &error);
    ASSERT_TRUE(kit) << error;
    std::shared_ptr<RecordStore> view = storeForAccount(kit->records, account);

    if (c.storeOutage) server.store().broken = true;
    const auto start = Clock::now();
    const std::vector<TableItem> records = fiveTableRecords(*session, 1, 600);
    for (size_t i = 0; i < records.size(); ++i) {
      view->save(records[i].table, records[i].item,
                 [&](std::optional<StoreError> e) { refused += e.has_value(); });
      if (i % 30 == 29) std::this_thread::sleep_for(100ms);  // 300 records/s, a session's pace
    }
    if (c.storeOutage) {
      std::this_thread::sleep_until(start + 2500ms);
      server.store().broken = false;
    }
    EXPECT_TRUE(waitUntil([&] { return writes.total() >= records.size(); }, 30s))
        << writes.total() << " of " << records.size();

    EXPECT_EQ(refused.load(), 0);
    const std::optional<StoredRecords> stored = server.recordsOf(*session, &error);
    ASSERT_TRUE(stored) << error;
    std::set<RecordKey> expected;
    for (const TableItem& t : records) {
      expected.insert({t.table, *session, std::stoll(t.item.at("RecordId").text)});
      const auto table = stored->find(t.table);
      const int64_t id = std::stoll(t.item.at("RecordId").text);
      ASSERT_TRUE(table != stored->end() && table->second.contains(id)) << t.table << " " << id;
      EXPECT_EQ(table->second.at(id), t.item);
    }
    EXPECT_EQ(asSet(keysOf(*stored, *session)), expected);
    // Refused batches stored nothing and no answer was lost: each record was committed once.
    for (const auto& [key, n] : writes.counts())
      EXPECT_EQ(n, 1) << key.table << " " << key.recordId;

    // One request at a time: each refusal and the attempt after it.
    std::vector<Exchange> exchanges = kit->http->exchanges();
    std::sort(exchanges.begin(), exchanges.end(),
              [](const Exchange& a, const Exchange& b) { return a.sent < b.sent; });
    int refusals = 0, failures = 0;
    for (size_t i = 0; i + 1 < exchanges.size(); ++i) {
      const Exchange& x = exchanges[i];
      if (x.status == 200) {
        failures = 0;
        continue;
      }
      ASSERT_EQ(x.status, c.refusal);
      ++refusals;
      ++failures;
      const auto waited = exchanges[i + 1].sent - x.answered;
      const auto asked = std::chrono::seconds(x.retryAfterSeconds.value_or(0));
      EXPECT_EQ(x.retryAfterSeconds.has_value(), c.refusal == 429);
      EXPECT_GE(waited, asked - 5ms) << "retry " << failures << " came before Retry-After";
      EXPECT_LE(waited,
                std::max<std::chrono::milliseconds>(asked, kitBackoff.ceiling(failures)) + kSlack)
          << "retry " << failures << " waited longer than the backoff allows";
    }
    // A slow machine batches more per request, so fewer requests meet the quota.
    EXPECT_GE(refusals, 1);
  }
}

}  // namespace
}  // namespace omra::testing
