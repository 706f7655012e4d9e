// What only the SQLite store promises: one file shared by two users (a kit and a back end), items
// kept across reopening, and a clear error for a file it cannot open.
#include "src/platform/store/sqlite_record_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"

namespace omra {
namespace {

std::string freshPath(const std::string& name) {
  const auto dir = std::filesystem::path(::testing::TempDir()) /
                   ("omra-sqlite-" + std::to_string(::getpid()) + "-" + name);
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return (dir / "records.db").string();
}

std::shared_ptr<SqliteRecordStore> openOrFail(const std::string& path) {
  std::string error;
  auto store = SqliteRecordStore::open(path, &error);
  EXPECT_TRUE(store) << error;
  return store;
}

TEST(SqliteRecordStoreTest, TwoStoresShareOneFileWhileBothWrite) {
  const std::string path = freshPath("shared");
  auto kit = openOrFail(path), server = openOrFail(path);
  ASSERT_TRUE(kit && server);
  // Tables made through one are known to the other, which opened before they existed.
  ASSERT_FALSE(ensureRecordTables(*kit).has_value());

  constexpr int kEach = 300;
  std::atomic<int> failures{0};
  auto writeFrom = [&](SqliteRecordStore& store, const std::string& session) {
    for (int i = 0; i < kEach; ++i) {
      store.save(CameraPathModel::kTableName,
                 withRecordId(CameraPathModel(session, i, {{"0", "x"}}).toItem(), i + 1),
                 [&](std::optional<StoreError> e) { failures += e.has_value(); });
    }
    store.waitForSaves();
  };
  std::thread a(writeFrom, std::ref(*kit), "kit");
  std::thread b(writeFrom, std::ref(*server), "server");
  a.join();
  b.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(queryAll(*server, CameraPathModel::kTableName, AttributeValue::string("kit")).size(),
            size_t{kEach});
  EXPECT_EQ(queryAll(*kit, CameraPathModel::kTableName, AttributeValue::string("server")).size(),
            size_t{kEach});
}

// Batches written at once from many threads share transactions; each still lands whole or not at
// all, whatever the batches beside it do.
TEST(SqliteRecordStoreTest, ConcurrentBatchesLandWholeOrNotAtAll) {
  auto store = openOrFail(freshPath("grouped"));
  ASSERT_TRUE(store);
  ASSERT_FALSE(ensureRecordTables(*store).has_value());
  constexpr int kThreads = 8, kBatches = 30, kItems = 7;
  const auto session = [](int t, int b) {
    return "S-" + std::to_string(t) + "-" + std::to_string(b);
  };
  const auto faulty = [](int t, int b) { return (t + b) % 4 == 0; };
  std::atomic<int> wrongAnswers{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int b = 0; b < kBatches; ++b) {
        std::vector<TableItem> items;
        for (int i = 0; i < kItems; ++i) {
          items.push_back(
              {CameraPathModel::kTableName,
               withRecordId(CameraPathModel(session(t, b), i, {{"0", "x"}}).toItem(), i + 1)});
        }
        if (faulty(t, b)) items[4].item[kRecordIdAttribute] = AttributeValue::string("five");
        const bool failed = store->writeBatch(items).has_value();
        if (failed != faulty(t, b)) ++wrongAnswers;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrongAnswers, 0);
  for (int t = 0; t < kThreads; ++t) {
    for (int b = 0; b < kBatches; ++b) {
      EXPECT_EQ(queryAll(*store, CameraPathModel::kTableName, AttributeValue::string(session(t, b)))
                    .size(),
                faulty(t, b) ? 0u : size_t{kItems})
          << session(t, b);
    }
  }
}

TEST(SqliteRecordStoreTest, ItemsSurviveReopeningAndPendingSavesAreWrittenOnClose) {
  const std::string path = freshPath("reopen");
  {
    auto store = openOrFail(path);
    ASSERT_TRUE(store);
    ASSERT_FALSE(ensureRecordTables(*store).has_value());
    for (int i = 0; i < 50; ++i) {
      store->save(CameraPathModel::kTableName,
                  withRecordId(CameraPathModel("S", i * 20, {}).toItem(), i + 1), {});
    }
  }  // destroyed with saves still queued
  auto store = openOrFail(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(queryAll(*store, CameraPathModel::kTableName, AttributeValue::string("S")).size(), 50u);
  // Re-creating with the same keys is fine; with other keys it is refused.
  EXPECT_FALSE(store->createTable(CameraPathModel::schema()).has_value());
  TableSchema other = CameraPathModel::schema();
  other.rangeKey = "Timestamp";
  EXPECT_TRUE(store->createTable(other).has_value());
}

// Another connection holds the write lock and the store's own writer waits for it: reads still
// answer, from the last committed state.
TEST(SqliteRecordStoreTest, ReadsAnswerWhileTheWriteLockIsHeld) {
  const std::string path = freshPath("locked");
  std::string error;
  SqliteRecordStore::Options options;
  options.busyTimeoutMs = 3000;
  std::shared_ptr<SqliteRecordStore> store = SqliteRecordStore::open(path, options, &error);
  ASSERT_TRUE(store) << error;
  ASSERT_FALSE(ensureRecordTables(*store).has_value());
  const Item committed = withRecordId(CameraPathModel("S", 0, {{"0", "x"}}).toItem(), 1);
  ASSERT_FALSE(store->put(CameraPathModel::kTableName, committed));

  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE; DELETE FROM \"MapData-CameraPath\";", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  // The store's writer now waits for the lock, holding the store's write side.
  auto blockedPut = std::async(std::launch::async, [&] {
    return store->put(CameraPathModel::kTableName,
                      withRecordId(CameraPathModel("S", 20, {}).toItem(), 2));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto got = store->get(
      CameraPathModel::kTableName,
      {{"SessionId", AttributeValue::string("S")}, {kRecordIdAttribute, integerNumber(1)}});
  const auto page = store->query(CameraPathModel::kTableName, AttributeValue::string("S"), {}, 0);
  EXPECT_EQ(blockedPut.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
      << "the write did not wait for the lock, so the reads proved nothing";
  ASSERT_EQ(sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(other);
  EXPECT_FALSE(blockedPut.get().has_value()) << "the write went through once the lock was free";
  ASSERT_TRUE(got);
  EXPECT_EQ(*got, committed);
  EXPECT_EQ(page.items, std::vector<Item>{committed});
}

TEST(SqliteRecordStoreTest, UnopenableFileIsAnErrorNotACrash) {
  std::string error;
  const std::string dir = freshPath("dir");  // a path inside a folder that is a file
  std::ofstream(dir) << "not a folder";
  EXPECT_EQ(SqliteRecordStore::open(dir + "/inner.db", &error), nullptr);
  EXPECT_NE(error.find("cannot open the record database"), std::string::npos) << error;

  // A file that is not a database.
  const std::string junk = freshPath("junk");
  std::ofstream(junk) << std::string(4096, 'j');
  EXPECT_EQ(SqliteRecordStore::open(junk, &error), nullptr);
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace omra
