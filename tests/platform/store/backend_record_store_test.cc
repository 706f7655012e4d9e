// The backend record store end to end against a fake ingest route: batching, accounts, retries,
// refusals, restarts, a damaged outbox, the size cap, flush bounds and memory bounds.
#include "src/platform/store/backend_record_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <thread>

#include "src/cloud/account_http_client.h"
#include "src/platform/store/attribute_json.h"
#include "tests/platform/store/backend_testutil.h"

namespace omra {
namespace {

using namespace std::chrono_literals;
using testing::BackendStoreHarness;
using testing::cameraRecords;
using testing::IngestCall;
using testing::IngestReply;
using testing::kAccountA;
using testing::kAccountB;
using Key = std::tuple<std::string, std::string, std::string, int64_t>;

size_t failures(const std::vector<std::optional<StoreError>>& results) {
  size_t n = 0;
  for (const auto& r : results) n += r.has_value();
  return n;
}

// The keys the fake would hold once these items of the account are stored.
std::set<Key> keysOf(const std::string& account, const std::vector<TableItem>& items) {
  std::set<Key> out;
  for (const TableItem& t : items) {
    out.insert(
        {account, t.table, t.item.at("SessionId").text, std::stoll(t.item.at("RecordId").text)});
  }
  return out;
}

std::set<Key> storedKeys(const testing::FakeIngestBackend& backend) {
  std::set<Key> out;
  for (const auto& [key, count] : backend.stored()) out.insert(key);
  return out;
}

class BackendRecordStoreTest : public ::testing::Test {
 protected:
  BackendStoreHarness h;
};

TEST_F(BackendRecordStoreTest, DeliversRecordsInBatchesUnderTheirAccounts) {
  auto store = h.open();
  const auto a = cameraRecords("SESSION-A", 230);
  const auto b = cameraRecords("SESSION-B", 40);
  EXPECT_EQ(failures(h.saveAll(store, kAccountA, a)), 0u);
  EXPECT_EQ(failures(h.saveAll(store, kAccountB, b)), 0u);
  ASSERT_TRUE(store->flush(30s));

  std::set<Key> expected = keysOf(kAccountA, a);
  expected.merge(keysOf(kAccountB, b));
  EXPECT_EQ(storedKeys(*h.backend), expected);
  const auto calls = h.backend->calls();
  EXPECT_LT(calls.size(), 20u) << "records must travel in batches";
  for (const IngestCall& call : calls) {
    EXPECT_EQ(call.url, "http://backend.test/prod/records/batch_write");
    ASSERT_FALSE(call.items.empty());
    EXPECT_LE(call.items.size(), 100u);
    const std::string session = call.account == kAccountA ? "SESSION-A" : "SESSION-B";
    ASSERT_TRUE(call.account == kAccountA || call.account == kAccountB) << call.account;
    for (const auto& item : call.items) EXPECT_EQ(std::get<1>(item), session);
  }
  const auto stats = store->stats();
  EXPECT_EQ(stats.outboxRows, 0u);
  EXPECT_EQ(stats.recordsDelivered, a.size() + b.size());
}

TEST_F(BackendRecordStoreTest, RequestBodiesStayWithinTheRouteLimit) {
  auto options = h.options();
  options.maxBatchItems = 1000;
  auto store = h.open(options);
  const auto big = cameraRecords("SESSION-BIG", 12, 1, 300 * 1024);
  EXPECT_EQ(failures(h.saveAll(store, kAccountA, big)), 0u);
  ASSERT_TRUE(store->flush(30s));
  EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, big));
  size_t most = 0;
  for (const IngestCall& call : h.backend->calls()) {
    EXPECT_LE(call.bodyBytes, kMaxIngestBodyBytes);
    most = std::max(most, call.items.size());
  }
  EXPECT_GE(most, 2u) << "large records still share requests up to the limit";
}

TEST(BackendRecordStoreRetryTest, TransientFailuresAreRetriedUntilEveryRecordArrives) {
  struct Case {
    const char* name;
    size_t failingCalls;
    IngestReply failure;
  };
  const std::vector<Case> cases = {
      {"connection refused", 6, IngestReply::refused()},
      {"service unavailable", 4, {503, Json{{"errorMessage", "store unavailable"}}, {}}},
      {"server error without JSON", 2, {500, Json("oops"), {}}},
      {"request timeout", 2, {408, Json::object(), {}}},
      {"throttled without Retry-After", 3, {429, Json::object(), {}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BackendStoreHarness h;
    h.backend->setScript([&](const IngestCall&, size_t n) {
      return n < c.failingCalls ? c.failure : IngestReply{};
    });
    auto store = h.open();
    const auto records = cameraRecords("SESSION-R", 40);
    EXPECT_EQ(failures(h.saveAll(store, kAccountA, records)), 0u);
    ASSERT_TRUE(store->flush(30s));
    EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, records));
    const auto calls = h.backend->calls();
    ASSERT_GT(calls.size(), c.failingCalls);
    // The harness's backoff (5 ms doubling, capped at 40 ms) is in force, not the default
    // (250 ms doubling, seconds by the last attempt); the bound leaves room for a loaded machine.
    for (size_t i = 1; i <= c.failingCalls; ++i) {
      EXPECT_LT(calls[i].at - calls[i - 1].at, 3s) << "attempt " << i;
    }
    EXPECT_TRUE(h.logger->contains("Records cannot reach the back end"));
    EXPECT_TRUE(h.logger->contains("Records reach the back end again"));
  }
}

TEST_F(BackendRecordStoreTest, RetryAfterHoldsTheNextAttemptBack) {
  h.backend->setScript([](const IngestCall&, size_t n) {
    return n == 0 ? IngestReply{429,
                                Json{{"errorMessage", "Too many requests for this account"}},
                                {{"retry-after", "1"}}}
                  : IngestReply{};
  });
  auto store = h.open();
  const auto records = cameraRecords("SESSION-T", 5);
  EXPECT_EQ(failures(h.saveAll(store, kAccountA, records)), 0u);
  ASSERT_TRUE(store->flush(30s));
  const auto calls = h.backend->calls();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_GE(calls[1].at - calls[0].at, 950ms);
  EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, records));
}

TEST(BackendRecordStoreRefusalTest, RefusalsDropOnlyWhatCanNeverSucceed) {
  struct Case {
    const char* name;
    IngestReply firstReply;
    // Positions in the first request's items that are lost; -1: all of them.
    std::vector<int> lost;
    const char* logged;
  };
  const auto oneItem = [](long status, int index) {
    return IngestReply{
        status,
        Json{{"errorMessage", "MapData-CameraPath[" + std::to_string(index) + "]: bad"},
             {"table", "MapData-CameraPath"},
             {"index", index}},
        {}};
  };
  const std::vector<Case> cases = {
      {"400 naming one item", oneItem(400, 3), {3}, "refused a record of MapData-CameraPath"},
      {"404 naming one item", oneItem(404, 0), {0}, "refused a record of MapData-CameraPath"},
      {"403 for the whole batch",
       {403, Json{{"errorMessage", "The developer key does not match the account"}}, {}},
       {-1},
       "does not match the account"},
      {"400 without an item", {400, Json{{"errorMessage", "Body too large"}}, {}}, {-1}, "refused"},
      {"400 naming no item of the batch", oneItem(400, 99), {-1}, "refused"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BackendStoreHarness h;
    h.backend->setScript(
        [&](const IngestCall&, size_t n) { return n == 0 ? c.firstReply : IngestReply{}; });
    auto store = h.open();
    const auto records = cameraRecords("SESSION-X", 10);
    EXPECT_EQ(failures(h.saveAll(store, kAccountA, records)), 0u);
    ASSERT_TRUE(store->flush(30s));
    const auto calls = h.backend->calls();
    ASSERT_FALSE(calls.empty());
    std::set<Key> expected = keysOf(kAccountA, records);
    size_t lostCount = 0;
    for (size_t i = 0; i < calls[0].items.size(); ++i) {
      const bool lost =
          c.lost == std::vector<int>{-1} ||
          std::find(c.lost.begin(), c.lost.end(), static_cast<int>(i)) != c.lost.end();
      if (!lost) continue;
      const auto& [table, session, id] = calls[0].items[i];
      expected.erase({kAccountA, table, session, id});
      ++lostCount;
    }
    EXPECT_EQ(store->stats().recordsDropped, lostCount);
    EXPECT_TRUE(h.logger->contains(c.logged));
    // The store goes on sending what comes next.
    const auto later = cameraRecords("SESSION-X", 2, 100);
    EXPECT_EQ(failures(h.saveAll(store, kAccountA, later)), 0u);
    ASSERT_TRUE(store->flush(30s));
    expected.merge(keysOf(kAccountA, later));
    EXPECT_EQ(storedKeys(*h.backend), expected);
  }
}

TEST_F(BackendRecordStoreTest, RecordsLeftByAnEarlierProcessAreDeliveredOnTheNextOpen) {
  h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
  const auto a = cameraRecords("SESSION-OFFLINE", 50);
  const auto b = cameraRecords("SESSION-OTHER", 20);
  {
    auto first = h.open();  // closes without waiting for delivery
    EXPECT_EQ(failures(h.saveAll(first, kAccountA, a)), 0u);
    EXPECT_EQ(failures(h.saveAll(first, kAccountB, b)), 0u);
  }
  EXPECT_EQ(h.backend->storedCount(), 0u);

  h.backend->setScript({});
  auto second = h.open();
  ASSERT_TRUE(second->flush(30s));
  std::set<Key> expected = keysOf(kAccountA, a);
  expected.merge(keysOf(kAccountB, b));
  EXPECT_EQ(storedKeys(*h.backend), expected);
  EXPECT_TRUE(h.logger->contains("records from an earlier run"));
}

// Records remember the back end they were written for: a kit pointed at another sends only what
// it writes there and keeps the rest until it is pointed back.
TEST_F(BackendRecordStoreTest, RecordsGoOnlyToTheBackEndTheyWereWrittenFor) {
  const std::string firstUrl = "http://backend.test/prod/records/batch_write";
  const std::string otherUrl = "http://other.test/prod/records/batch_write";
  h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
  const auto forFirst = cameraRecords("SESSION-FIRST", 30);
  {
    auto first = h.open();
    EXPECT_EQ(failures(h.saveAll(first, kAccountA, forFirst)), 0u);
  }
  h.backend->setScript({});
  const size_t refusedCalls = h.backend->calls().size();

  BackendRecordStore::Options other = h.options();
  other.baseUrl = "http://other.test/prod";
  const auto forOther = cameraRecords("SESSION-OTHER", 20);
  {
    auto store = h.open(other);
    EXPECT_EQ(failures(h.saveAll(store, kAccountB, forOther)), 0u);
    EXPECT_TRUE(store->flush(10s));
    EXPECT_EQ(store->stats().outboxOtherRows, forFirst.size());
    EXPECT_TRUE(h.logger->contains("30 records written for another back end"));
  }
  EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountB, forOther));
  const size_t otherCalls = h.backend->calls().size();

  {
    auto back = h.open();
    EXPECT_TRUE(back->flush(10s));
    EXPECT_EQ(back->stats().outboxOtherRows, 0u);
  }
  std::set<Key> all = keysOf(kAccountA, forFirst);
  all.merge(keysOf(kAccountB, forOther));
  EXPECT_EQ(storedKeys(*h.backend), all);
  const std::vector<IngestCall> calls = h.backend->calls();
  ASSERT_GT(calls.size(), otherCalls);
  for (size_t i = refusedCalls; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].url, i < otherCalls ? otherUrl : firstUrl) << "call " << i;
    for (const auto& [table, session, id] : calls[i].items) {
      EXPECT_EQ(session, i < otherCalls ? "SESSION-OTHER" : "SESSION-FIRST") << "call " << i;
    }
  }
}

// An outbox from before rows named their back end: its rows go to the back end that opens it.
TEST(BackendRecordStoreOutboxFileTest, RowsThatNameNoBackEndGoToTheOneThatOpensThem) {
  BackendStoreHarness h;
  const auto records = cameraRecords("SESSION-OLD", 3);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(h.outboxPath.c_str(), &db), SQLITE_OK);
  std::string sql =
      "PRAGMA application_id=1330467394;"  // the outbox's "OMRB"
      "CREATE TABLE records (id INTEGER PRIMARY KEY AUTOINCREMENT, account TEXT NOT NULL,"
      " record_table TEXT NOT NULL, item TEXT NOT NULL, bytes INTEGER NOT NULL);";
  for (const TableItem& t : records) {
    sql += "INSERT INTO records (account, record_table, item, bytes) VALUES ('" + kAccountA +
           "', '" + t.table + "', '" + itemToJson(t.item).dump() + "', 100);";
  }
  ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(db);
  sqlite3_close(db);

  auto store = h.open();
  ASSERT_TRUE(store->flush(10s));
  EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, records));
  EXPECT_FALSE(h.logger->contains("set aside"));
}

TEST(BackendRecordStoreOutboxFileTest, AnUnreadableOutboxIsSetAsideAndAFreshOneUsed) {
  struct Case {
    const char* name;
    std::function<void(BackendStoreHarness&)> damage;
  };
  const std::vector<Case> cases = {
      {"not a database",
       [](BackendStoreHarness& h) {
         std::ofstream(h.outboxPath, std::ios::binary) << std::string(8192, 'x');
       }},
      {"cut short",
       [](BackendStoreHarness& h) {
         h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
         {
           auto store = h.open();
           h.saveAll(store, kAccountA, cameraRecords("SESSION-C", 400, 1, 1000));
         }
         h.backend->setScript({});
         std::filesystem::resize_file(h.outboxPath,
                                      std::filesystem::file_size(h.outboxPath) * 6 / 10);
       }},
      {"another program's database",
       [](BackendStoreHarness& h) {
         sqlite3* db = nullptr;
         sqlite3_open(h.outboxPath.c_str(), &db);
         sqlite3_exec(db, "CREATE TABLE notes (text TEXT); INSERT INTO notes VALUES ('mine')",
                      nullptr, nullptr, nullptr);
         sqlite3_close(db);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BackendStoreHarness h;
    c.damage(h);
    const auto damagedSize = std::filesystem::file_size(h.outboxPath);
    auto store = h.open();
    ASSERT_TRUE(store);
    EXPECT_TRUE(h.logger->contains("set aside as " + h.outboxPath + ".corrupt-"));
    size_t asideFiles = 0;
    for (const auto& entry : std::filesystem::directory_iterator(h.dir)) {
      const std::string name = entry.path().filename().string();
      if (name.rfind("outbox.db.corrupt-", 0) == 0 && name.find("-wal") == std::string::npos &&
          name.find("-shm") == std::string::npos) {
        ++asideFiles;
        EXPECT_EQ(entry.file_size(), damagedSize);
      }
    }
    EXPECT_EQ(asideFiles, 1u);
    const auto records = cameraRecords("SESSION-FRESH", 3);
    EXPECT_EQ(failures(h.saveAll(store, kAccountA, records)), 0u);
    ASSERT_TRUE(store->flush(30s));
    EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, records));
  }
}

TEST_F(BackendRecordStoreTest, UnreadableRowsAreDroppedAndTheRestDelivered) {
  h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
  const auto records = cameraRecords("SESSION-ROWS", 4);
  {
    auto store = h.open();
    EXPECT_EQ(failures(h.saveAll(store, kAccountA, records)), 0u);
  }
  sqlite3* db = nullptr;
  sqlite3_open(h.outboxPath.c_str(), &db);
  const std::string bad =
      "INSERT INTO records (account, record_table, item, bytes) VALUES "
      "('" +
      kAccountA +
      "', 'MapData-CameraPath', '{\"SessionId\": [1, 2]}', 10),"
      "('" +
      kAccountA +
      "', 'MapData-CameraPath', 'not json', 8),"
      "('" +
      kAccountA + "', 'Unknown-Table', '{\"SessionId\": {\"S\": \"x\"}}', 10)";
  ASSERT_EQ(sqlite3_exec(db, bad.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);

  h.backend->setScript({});
  auto store = h.open();
  ASSERT_TRUE(store->flush(30s));
  EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, records));
  EXPECT_TRUE(h.logger->contains("of the record outbox: the item is unreadable"));
  EXPECT_TRUE(h.logger->contains("of the record outbox: the item is not a JSON object"));
  EXPECT_TRUE(h.logger->contains("Dropped a record of the table Unknown-Table"));
}

TEST_F(BackendRecordStoreTest, AFullOutboxRefusesNewRecordsAndKeepsWhatItHolds) {
  h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
  auto options = h.options();
  options.outboxMaxBytes = 40 * 1024;
  auto store = h.open(options);
  const auto records = cameraRecords("SESSION-FULL", 200, 1, 500);
  const auto results = h.saveAll(store, kAccountA, records);
  size_t kept = 0;
  while (kept < results.size() && !results[kept]) ++kept;
  ASSERT_GT(kept, 0u);
  ASSERT_LT(kept, results.size());
  for (size_t i = kept; i < results.size(); ++i) {
    ASSERT_TRUE(results[i]) << "record " << i << " after the outbox filled up";
    EXPECT_NE(results[i]->message.find("the record outbox is full"), std::string::npos);
  }
  EXPECT_EQ(store->stats().outboxRows, kept);
  EXPECT_LE(store->stats().outboxBytes, options.outboxMaxBytes);

  h.backend->setScript({});
  ASSERT_TRUE(store->flush(30s));
  const std::vector<TableItem> first(records.begin(), records.begin() + static_cast<long>(kept));
  EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, first));
  const auto later = cameraRecords("SESSION-FULL", 1, 1000);
  EXPECT_EQ(failures(h.saveAll(store, kAccountA, later)), 0u) << "room again once delivered";
}

TEST(BackendRecordStoreCloseTest, ClosingDeliversWhatItCanWithinItsBound) {
  struct Case {
    const char* name;
    bool backEndUp;
    size_t leftInOutbox;
  };
  for (const Case& c : {Case{"back end up", true, 0}, Case{"back end down", false, 25}}) {
    SCOPED_TRACE(c.name);
    BackendStoreHarness h;
    if (!c.backEndUp) {
      h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
    }
    auto options = h.options();
    options.closeTimeout = 400ms;
    const auto records = cameraRecords("SESSION-CLOSE", 25);
    auto store = h.open(options);
    auto view = storeForAccount(store, kAccountA);
    std::atomic<int> completed{0};
    for (const TableItem& t : records) {
      view->save(t.table, t.item, [&](std::optional<StoreError> e) { completed += !e; });
    }
    view.reset();
    const auto start = std::chrono::steady_clock::now();
    store.reset();  // every save completes first, then delivery gets its bound
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(completed.load(), 25);
    EXPECT_EQ(h.backend->storedCount(), 25 - c.leftInOutbox);

    h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
    auto reopened = h.open();
    EXPECT_EQ(reopened->stats().outboxRows, c.leftInOutbox);
  }
}

TEST_F(BackendRecordStoreTest, FlushWithADeadBackEndGivesUpInTimeAndKeepsTheRecords) {
  h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
  auto store = h.open();
  EXPECT_EQ(failures(h.saveAll(store, kAccountA, cameraRecords("SESSION-D", 30))), 0u);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(store->flush(300ms));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 290ms);
  EXPECT_LT(took, 2s);
  EXPECT_EQ(store->stats().outboxRows, 30u);
  EXPECT_GE(h.backend->calls().size(), 1u) << "it tried meanwhile";
}

TEST_F(BackendRecordStoreTest, MemoryStaysBoundedWhileTheBackEndIsDown) {
  h.backend->setScript([](const IngestCall&, size_t) { return IngestReply::refused(); });
  auto options = h.options();
  options.maxPendingBytes = 64 * 1024;
  auto store = h.open(options);
  std::atomic<size_t> accepted{0}, refused{0};
  std::atomic<bool> done{false};
  size_t worstPending = 0, worstInFlight = 0;
  std::thread watcher([&] {
    while (!done) {
      const auto s = store->stats();
      worstPending = std::max(worstPending, s.pendingBytes);
      worstInFlight = std::max(worstInFlight, s.inFlightBodyBytes);
      std::this_thread::sleep_for(1ms);
    }
  });
  std::vector<std::thread> writers;
  for (int w = 0; w < 2; ++w) {
    writers.emplace_back([&, w] {
      auto view = storeForAccount(store, kAccountA);
      for (const TableItem& t : cameraRecords("SESSION-M" + std::to_string(w), 3000, 1, 400)) {
        view->save(t.table, t.item, [&](std::optional<StoreError> e) {
          ++(e ? refused : accepted);
          if (e) {
            EXPECT_NE(e->message.find("cannot keep up"), std::string::npos) << e->message;
          }
        });
      }
    });
  }
  for (auto& t : writers) t.join();
  store->waitForSaves();
  done = true;
  watcher.join();
  const auto s = store->stats();
  EXPECT_EQ(accepted + refused, 6000u);
  EXPECT_GT(accepted, 0u);
  EXPECT_LE(s.peakPendingBytes, options.maxPendingBytes);
  EXPECT_LE(worstPending, options.maxPendingBytes);
  EXPECT_LE(worstInFlight, options.maxBodyBytes);
  EXPECT_EQ(s.pendingSaves, 0u) << "the memory queue drains into the outbox";
  EXPECT_EQ(s.outboxRows, accepted.load());
}

TEST_F(BackendRecordStoreTest, RecordsThatCanNeverBeSentAreRefusedAtOnce) {
  auto store = h.open();
  Item noRecordId = testing::cameraRecord("S", 1);
  noRecordId.erase("RecordId");
  Item tooLarge = testing::cameraRecord("S", 2);
  tooLarge["Blob"] = AttributeValue::bytes(std::string(kMaxItemBytes, 'x'));
  struct Case {
    const char* name;
    std::shared_ptr<RecordStore> through;
    std::string table;
    Item item;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"no account", store, "MapData-CameraPath", testing::cameraRecord("S", 3), "account"},
      {"not a record table", storeForAccount(store, kAccountA), "Transformations",
       testing::cameraRecord("S", 4), "no records for the table Transformations"},
      {"no RecordId", storeForAccount(store, kAccountA), "MapData-CameraPath", noRecordId,
       "RecordId"},
      {"over 400 KB", storeForAccount(store, kAccountA), "MapData-CameraPath", tooLarge,
       kItemTooLargeMessage},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::promise<std::optional<StoreError>> result;
    c.through->save(c.table, c.item, [&](std::optional<StoreError> e) { result.set_value(e); });
    const auto error = result.get_future().get();
    ASSERT_TRUE(error);
    EXPECT_NE(error->message.find(c.error), std::string::npos) << error->message;
  }
  EXPECT_EQ(store->stats().outboxRows, 0u);
  EXPECT_TRUE(h.backend->calls().empty());
}

TEST_F(BackendRecordStoreTest, FlushOnTheMainQueueWaitsOnlyUntilRecordsAreDurable) {
  auto store = h.open();
  const auto records = cameraRecords("SESSION-MAIN", 20);
  auto view = storeForAccount(store, kAccountA);
  for (const TableItem& t : records) view->save(t.table, t.item, {});
  std::promise<std::chrono::steady_clock::duration> took;
  h.dispatcher->mainQueue().post([&] {
    const auto start = std::chrono::steady_clock::now();
    store->flush(3s);  // delivery needs this very queue
    took.set_value(std::chrono::steady_clock::now() - start);
  });
  EXPECT_LT(took.get_future().get(), 2s);
  EXPECT_EQ(store->stats().pendingSaves, 0u);
  ASSERT_TRUE(store->flush(30s));
  EXPECT_EQ(storedKeys(*h.backend), keysOf(kAccountA, records));
}

}  // namespace
}  // namespace omra
