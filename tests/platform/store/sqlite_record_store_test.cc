// What only the SQLite store promises: one file shared by two users (a kit and a back end), items
// kept across reopening, rows kept compactly (and those of older files still read), a damaged row
// an error for its item, and a clear error for a file it cannot open.
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
#include "src/platform/store/item_checks.h"
#include "tests/platform/store/record_items_testutil.h"

namespace omra {
namespace {

std::string freshPath(const std::string& name) {
  const auto dir = std::filesystem::path(::testing::TempDir()) /
                   ("omra-sqlite-" + std::to_string(::getpid()) + "-" + name);
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return (dir / "records.db").string();
}

std::shared_ptr<SqliteRecordStore> openOrFail(const std::string& path,
                                              SqliteRecordStore::Options options = {}) {
  std::string error;
  auto store = SqliteRecordStore::open(path, options, &error);
  EXPECT_TRUE(store) << error;
  return store;
}

// Runs SQL on the file through a connection of its own, as another process would.
void execOnFile(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  sqlite3_busy_timeout(db, 5000);
  char* message = nullptr;
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
  const std::string why = message != nullptr ? message : "";
  sqlite3_free(message);
  sqlite3_close(db);
  ASSERT_EQ(rc, SQLITE_OK) << sql << ": " << why;
}

// The single integer a query on the file answers.
int64_t queryNumber(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_stmt* s = nullptr;
  int64_t n = -1;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) == SQLITE_OK &&
      sqlite3_step(s) == SQLITE_ROW) {
    n = sqlite3_column_int64(s, 0);
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  return n;
}

Item keyFor(const std::string& table, const Item& item) {
  return keyOf({table, "SessionId", KeyType::kString, kRecordIdAttribute, KeyType::kNumber}, item);
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
  // Re-creating with the same keys is fine, whatever the layout asked; with other keys, refused.
  EXPECT_FALSE(store->createTable(CameraPathModel::schema()).has_value());
  TableSchema clustered = CameraPathModel::schema();
  clustered.clustered = true;
  EXPECT_FALSE(store->createTable(clustered).has_value());
  TableSchema other = CameraPathModel::schema();
  other.rangeKey = "Timestamp";
  EXPECT_TRUE(store->createTable(other).has_value());

  // A table kept in key order reads its ranges in order after reopening, as the other layout does.
  clustered.name = "Clustered";
  ASSERT_FALSE(store->createTable(clustered).has_value());
  for (int i : {7, 3, 9, 1, 5}) {
    store->save("Clustered", withRecordId(CameraPathModel("S", i, {}).toItem(), i), {});
  }
  store.reset();
  store = openOrFail(path);
  ASSERT_TRUE(store);
  std::vector<int64_t> ids;
  for (const Item& item : queryAll(*store, "Clustered", AttributeValue::string("S"))) {
    std::optional<int64_t> id;
    EXPECT_TRUE(readInteger(item, kRecordIdAttribute, id) && id);
    ids.push_back(id.value_or(-1));
  }
  EXPECT_EQ(ids, (std::vector<int64_t>{1, 3, 5, 7, 9}));
  // ...and is one b-tree in key order, where the records' tables keep rowids.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  auto layout = [&](const char* table) {
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, "SELECT sql FROM sqlite_master WHERE name = ?1", -1, &st, nullptr);
    sqlite3_bind_text(st, 1, table, -1, SQLITE_STATIC);
    std::string sql = sqlite3_step(st) == SQLITE_ROW
                          ? reinterpret_cast<const char*>(sqlite3_column_text(st, 0))
                          : "";
    sqlite3_finalize(st);
    return sql.find("WITHOUT ROWID") != std::string::npos;
  };
  EXPECT_TRUE(layout("Clustered"));
  EXPECT_FALSE(layout(CameraPathModel::kTableName));
  sqlite3_close(db);
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

// Files written before the compact form: their JSON-text rows still read, and compact rows
// written into their tables sit beside them in range order, replacing them key for key.
TEST(SqliteRecordStoreTest, ReadsFilesWrittenInTheJsonTextForm) {
  const std::string path = freshPath("json-text");
  const std::string session = "A1B2C3D4-0000-4000-8000-000000000001";
  const auto old = testing::sampleRecordItems(session, 1);  // one per table, ids 1 to 5
  {
    SqliteRecordStore::Options options;
    options.rowForm = SqliteRecordStore::Options::RowForm::kJsonText;
    auto store = openOrFail(path, options);
    ASSERT_TRUE(store);
    ASSERT_FALSE(ensureRecordTables(*store).has_value());
    for (const auto& o : old) ASSERT_FALSE(store->put(o.table, o.item));
  }
  auto store = openOrFail(path);
  ASSERT_TRUE(store);
  for (const auto& o : old) {
    std::optional<StoreError> error;
    EXPECT_EQ(store->get(o.table, keyFor(o.table, o.item), &error), o.item)
        << o.table << (error ? ": " + error->message : "");
  }
  const auto before = testing::sampleRecordItems(session, -10);
  const auto after = testing::sampleRecordItems(session, 10);
  for (size_t i = 0; i < old.size(); ++i) {
    ASSERT_FALSE(store->put(after[i].table, after[i].item));
    ASSERT_FALSE(store->put(before[i].table, before[i].item));
    std::optional<StoreError> error;
    EXPECT_EQ(queryAll(*store, old[i].table, AttributeValue::string(session), &error),
              (std::vector<Item>{before[i].item, old[i].item, after[i].item}))
        << old[i].table << (error ? ": " + error->message : "");
  }
  const std::string table = old[0].table;
  EXPECT_EQ(queryNumber(path, "SELECT count(*) FROM \"" + table + "\" WHERE typeof(item) = 'text'"),
            1)
      << "the old row was rewritten, so its reading proved nothing";
  Item replaced = old[0].item;
  replaced["Extra"] = AttributeValue::string("replaced");
  ASSERT_FALSE(store->put(table, replaced));
  EXPECT_EQ(store->get(table, keyFor(table, replaced)), replaced);
  EXPECT_EQ(queryAll(*store, table, AttributeValue::string(session)).size(), 3u);
}

// A row damaged on disk (another program, a bad sector) fails the reads that reach it with an
// error naming the table; the items beside it still read.
TEST(SqliteRecordStoreTest, ADamagedRowIsAnErrorForItsItemOnly) {
  const std::string path = freshPath("damaged");
  auto store = openOrFail(path);
  ASSERT_TRUE(store);
  ASSERT_FALSE(ensureRecordTables(*store).has_value());
  const std::string session = "S";
  const std::string table = testing::sampleRecordItems(session)[0].table;
  std::vector<Item> items;
  for (int64_t id = 1; id <= 3; ++id) items.push_back(testing::imageFeatureItem(session, id));
  const struct {
    const char* name;
    const char* damage;  // SET clause for the second item
  } cases[] = {
      {"compact row cut short", "item = substr(item, 1, 40)"},
      {"compact row of an unknown version", "item = x'07'"},
      {"empty row", "item = x''"},
      {"JSON text that is not an item", "item = '{\"A\": 5}'"},
      {"text that is not JSON", "item = 'junk'"},
      {"a number", "item = 12"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const Item& item : items) ASSERT_FALSE(store->put(table, item));
    execOnFile(path, "UPDATE \"" + table + "\" SET " + c.damage + " WHERE range = 2");
    std::optional<StoreError> error;
    EXPECT_FALSE(store->get(table, keyFor(table, items[1]), &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->message.find("unreadable stored item in " + table), std::string::npos)
        << error->message;
    EXPECT_EQ(store->get(table, keyFor(table, items[0]), &error), items[0]);
    EXPECT_EQ(store->get(table, keyFor(table, items[2]), &error), items[2]);
    store->query(table, AttributeValue::string(session), {}, 0, &error);
    EXPECT_TRUE(error.has_value());
  }
}

// The layout's reason: kilobyte image-feature records fill the file's pages, where a WITHOUT
// ROWID table of JSON text took over three times their size.
TEST(SqliteRecordStoreTest, NewFilesKeepImageFeatureRecordsCompactly) {
  const std::string path = freshPath("compact");
  auto store = openOrFail(path);
  ASSERT_TRUE(store);
  ASSERT_FALSE(ensureRecordTables(*store).has_value());
  const std::string session = "A1B2C3D4-0000-4000-8000-000000000002";
  const std::string table = testing::sampleRecordItems(session)[0].table;
  size_t dataBytes = 0;
  std::vector<TableItem> batch;
  for (int64_t id = 1; id <= 1500; ++id) {
    batch.push_back({table, testing::imageFeatureItem(session, id)});
    dataBytes += itemSizeBytes(batch.back().item);
    if (batch.size() == 100) {
      ASSERT_FALSE(store->writeBatch(batch));
      batch.clear();
    }
  }
  execOnFile(path, "PRAGMA wal_checkpoint(TRUNCATE)");
  namespace fs = std::filesystem;
  const size_t stored =
      fs::file_size(path) + (fs::exists(path + "-wal") ? fs::file_size(path + "-wal") : 0);
  EXPECT_LE(static_cast<double>(stored), 1.3 * static_cast<double>(dataBytes))
      << stored << " bytes stored for " << dataBytes << " bytes of items";
  EXPECT_EQ(queryAll(*store, table, AttributeValue::string(session)).size(), 1500u);
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
