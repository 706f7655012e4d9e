// One suite for every record store: the same items, pages, limits and failures.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <future>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/record_writer.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/memory_logger.h"
#include "src/platform/store/dynamodb_record_store.h"
#include "src/platform/store/memory_record_store.h"
#include "src/platform/store/sqlite_record_store.h"
#include "tests/common/locale_testutil.h"
#include "tests/common/temp_dir_testutil.h"
#include "tests/platform/store/dynalite_testutil.h"

namespace omra {
namespace {

struct MemoryKind {
  std::shared_ptr<RecordStore> store = std::make_shared<MemoryRecordStore>();
  bool ready(std::string*) { return true; }
  // The in-memory store cannot fail underneath.
  std::shared_ptr<RecordStore> broken() { return nullptr; }
};

struct SqliteKind {
  testing::ScopedTempDir dir{"omra-store"};
  std::string path = dir.file("records.db");
  std::shared_ptr<RecordStore> store;
  bool ready(std::string* why) {
    store = SqliteRecordStore::open(path, why);
    return store != nullptr;
  }
  // Another process drops a table under the store.
  std::shared_ptr<RecordStore> broken() {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_busy_timeout(db, 5000);
    const int rc = sqlite3_exec(db, "DROP TABLE \"MapData-CameraPath\"", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return rc == SQLITE_OK ? store : nullptr;
  }
};

struct DynamoKind {
  std::shared_ptr<RecordStore> store;
  static std::shared_ptr<RecordStore> storeAt(const std::string& endpoint) {
    DynamoDbRecordStore::Options o;
    o.endpoint = endpoint;
    o.backoffBase = std::chrono::milliseconds(5);
    return std::make_shared<DynamoDbRecordStore>(o, nullptr);
  }
  bool ready(std::string* why) {
    auto* server = testing::sharedDynalite(why);
    if (server != nullptr) store = storeAt(server->endpoint());
    return server != nullptr;
  }
  // A store whose server was stopped after its tables were made.
  std::shared_ptr<RecordStore> broken() {
    std::string why;
    auto server = testing::DynaliteServer::start(&why);
    if (!server) return nullptr;
    auto s = storeAt(server->endpoint());
    if (ensureRecordTables(*s)) return nullptr;
    server->stop();
    return s;
  }
};

template <class Kind>
class RecordStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!kind_.ready(&why)) GTEST_SKIP() << why;
    store_ = kind_.store;
    ASSERT_FALSE(ensureRecordTables(*store_).has_value());
  }

  std::optional<StoreError> saveAndWait(const std::string& table, Item item) {
    std::promise<std::optional<StoreError>> done;
    store_->save(table, std::move(item), [&](std::optional<StoreError> e) { done.set_value(e); });
    return done.get_future().get();
  }

  // Saves the model, reads it back by its keys and checks the same attributes come back with the
  // same types; DynamoDB may rewrite number texts ("1e-05" as "0.00001"), so values are compared
  // through the model.
  template <class Model>
  void roundTrip(const Model& m) {
    const Item item = withRecordId(m.toItem(), 7);
    const std::string table = Model::dynamoDBTableName();
    const auto saveError = saveAndWait(table, item);
    ASSERT_FALSE(saveError.has_value()) << table << ": " << saveError->message;
    Item key{{Model::hashKeyAttribute(), item.at(Model::hashKeyAttribute())},
             {Model::rangeKeyAttribute(), item.at(Model::rangeKeyAttribute())}};
    std::optional<StoreError> error;
    auto got = store_->get(table, key, &error);
    ASSERT_TRUE(got.has_value()) << table << (error ? ": " + error->message : "");
    EXPECT_EQ(got->size(), item.size()) << table;
    for (const auto& [name, value] : item) {
      const auto it = got->find(name);
      EXPECT_TRUE(it != got->end() && it->second.type == value.type) << table << " " << name;
    }
    EXPECT_EQ(Model::fromItem(*got), m) << table;
  }

  Kind kind_;
  std::shared_ptr<RecordStore> store_;
};

using Kinds = ::testing::Types<MemoryKind, SqliteKind, DynamoKind>;
TYPED_TEST_SUITE(RecordStoreTest, Kinds);

TYPED_TEST(RecordStoreTest, EveryModelSavedAndReadBackEqual) {
  const std::string s = "A1B2C3D4-0000-4000-8000-000000000001";
  TransformResultModel result;
  result.sessionId = s;
  result.timestamp = 1763770000.123456;
  result.matchValue = "0.75";
  result.transform = "0.1,0.0,-0.2,1.5707964";
  result.localizer = "su_localizer";
  result.suppress = false;
  this->roundTrip(ImageFeaturesModel(s, 7, {1, 0.5, -3.25}));
  this->roundTrip(SceneUnderstandingModel(s, 8, 0.1f, -2.5f, 1e-05f, "chair", 0.875f, 42, true));
  this->roundTrip(DetectedPlaneModel(
      s, 9, "PLANE-1", "horizontal", "0.1,0.0,0.2|0.3,0.0,0.4", false,
      "1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.5,0.0,-1.0,1.0", false));
  this->roundTrip(DetectedPlaneModel(s, 10, "PLANE-1", true, true));
  this->roundTrip(CameraPathModel(s, 20, {{"20", "1.0,0.0,"}, {"21", "2.0,0.0,"}}));
  this->roundTrip(PointCloudModel(s, 180, {{180, {12, 99}}, {181, {99}}},
                                  {{12, {0.5f, -1.25f, 2.0f}}, {99, {1, 2, 3}}}));
  this->roundTrip(result);
}

TYPED_TEST(RecordStoreTest, QueryFollowsNumericRangeOrderOverPages) {
  const std::string table = CameraPathModel::kTableName;
  // Out of order, and with numbers whose text order differs from their value order.
  std::vector<int64_t> frames;
  for (int64_t f = 23 * 20; f >= 0; f -= 20) frames.push_back(f);
  frames.push_back(1000000000000);
  for (int64_t f : frames) {
    ASSERT_FALSE(this->store_->put(
        table, withRecordId(CameraPathModel("query-S", f, {{"0", "x"}}).toItem(), f)));
  }
  ASSERT_FALSE(
      this->store_->put(table, withRecordId(CameraPathModel("query-T", 5, {}).toItem(), 5)));

  std::vector<int64_t> seen;
  std::optional<Item> start;
  int pages = 0;
  do {
    std::optional<StoreError> error;
    QueryPage page =
        this->store_->query(table, AttributeValue::string("query-S"), start, 10, &error);
    ASSERT_FALSE(error.has_value()) << error->message;
    ASSERT_LE(page.items.size(), 10u);
    for (const Item& item : page.items)
      seen.push_back(CameraPathModel::fromItem(item)->frameId.value());
    start = page.lastEvaluatedKey;
    ASSERT_LT(++pages, 10);
  } while (start);
  std::sort(frames.begin(), frames.end());
  EXPECT_EQ(seen, frames);
  EXPECT_GE(pages, 3);

  std::optional<StoreError> error;
  EXPECT_EQ(queryAll(*this->store_, table, AttributeValue::string("query-S"), &error).size(),
            frames.size());
  EXPECT_TRUE(this->store_->query(table, AttributeValue::string("none"), {}, 10).items.empty());
}

TYPED_TEST(RecordStoreTest, DoubleRangeKeysOrderAndReplace) {
  const std::string table = TransformResultModel::kTableName;
  using Row = std::pair<double, std::string>;  // timestamp, localizer
  for (const Row& row : std::vector<Row>{
           {1763770000.5, "a"}, {99.25, "old"}, {1763770000.125, "b"}, {99.25, "new"}}) {
    TransformResultModel r;
    r.sessionId = "L";
    std::tie(r.timestamp, r.localizer) = row;
    ASSERT_FALSE(this->store_->put(table, r.toItem()));
  }
  std::vector<Row> rows;
  for (const Item& item : queryAll(*this->store_, table, AttributeValue::string("L"))) {
    const auto r = TransformResultModel::fromItem(item);
    rows.emplace_back(r->timestamp.value_or(0), r->localizer.value_or(""));
  }
  EXPECT_EQ(rows, (std::vector<Row>{{99.25, "new"}, {1763770000.125, "b"}, {1763770000.5, "a"}}));
}

// Number keys are read the "C" way whatever the host's locale: under a comma-decimal locale a
// strtod-style reader would take 2.5 and 2.25 for 2, and one row would replace the other.
TYPED_TEST(RecordStoreTest, NumberKeysIgnoreTheLocale) {
  OMRA_UNDER_COMMA_LOCALE(locale);
  const std::string table = TransformResultModel::kTableName;
  for (double t : {2.5, 2.0, 2.25, 10.75}) {
    TransformResultModel r;
    r.sessionId = "locale";
    r.timestamp = t;
    r.localizer = "su_localizer";
    ASSERT_FALSE(this->store_->put(table, r.toItem()));
  }
  std::vector<double> seen;
  for (const Item& item : queryAll(*this->store_, table, AttributeValue::string("locale"))) {
    seen.push_back(TransformResultModel::fromItem(item)->timestamp.value_or(-1));
  }
  EXPECT_EQ(seen, (std::vector<double>{2.0, 2.25, 2.5, 10.75}));
}

// Text that is not UTF-8 cannot be stored as JSON: refused as a store error, on the caller's
// thread for put and through the callback for save, never thrown on a worker thread.
TYPED_TEST(RecordStoreTest, RefusesTextThatIsNotUtf8) {
  const std::string table = SceneUnderstandingModel::kTableName;
  const Item good =
      withRecordId(SceneUnderstandingModel("S", 1, 0, 0, 0, "cup", 1, 1, false).toItem(), 1);
  const struct {
    const char* name;
    std::function<void(Item&)> spoil;
  } cases[] = {
      {"string value", [](Item& i) { i["ObjectName"] = AttributeValue::string("cup\xff"); }},
      {"hash key", [](Item& i) { i["SessionId"] = AttributeValue::string("S\xc3"); }},
      {"attribute name", [](Item& i) { i["Extra\xc0\xaf"] = AttributeValue::string("x"); }},
      {"map value",
       [](Item& i) {
         i["Extra"] = AttributeValue::stringMap({{"k", "\xed\xa0\x80"}});
       }},
      {"map key",
       [](Item& i) {
         i["Extra"] = AttributeValue::stringMap({{"\xff", "v"}});
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Item item = good;
    c.spoil(item);
    const auto saved = this->saveAndWait(table, item);
    ASSERT_TRUE(saved.has_value());
    EXPECT_NE(saved->message.find("UTF-8"), std::string::npos) << saved->message;
    EXPECT_TRUE(this->store_->put(table, item).has_value());
  }
  EXPECT_FALSE(this->saveAndWait(table, good).has_value());
}

TYPED_TEST(RecordStoreTest, RefusesOversizeAndMalformedItems) {
  const std::string table = ImageFeaturesModel::kTableName;
  ImageFeaturesModel big;
  big.sessionId = "S";
  big.frameId = 1;
  big.featuresC = std::string(kMaxItemBytes, 'x');
  const auto error = this->saveAndWait(table, withRecordId(big.toItem(), 1));
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->message.rfind(kItemTooLargeMessage, 0), 0u) << error->message;
  EXPECT_TRUE(this->store_->put(table, withRecordId(big.toItem(), 1)).has_value());

  big.featuresC = std::string(kMaxItemBytes - 100, 'x');  // just under the limit
  EXPECT_FALSE(this->saveAndWait(table, withRecordId(big.toItem(), 1)).has_value());

  SceneUnderstandingModel nan("S", 2, std::nanf(""), 0, 0, "cup", 1, 1, false);
  EXPECT_TRUE(this->saveAndWait(SceneUnderstandingModel::kTableName, withRecordId(nan.toItem(), 2))
                  .has_value());
  const Item noRange = CameraPathModel("S", 3, {}).toItem();  // no "RecordId"
  EXPECT_TRUE(this->saveAndWait(CameraPathModel::kTableName, noRange).has_value());
  EXPECT_TRUE(this->saveAndWait("NoSuchTable", withRecordId(noRange, 3)).has_value());
  std::optional<StoreError> getError;
  EXPECT_FALSE(
      this->store_->get("NoSuchTable", {{"SessionId", AttributeValue::string("S")}}, &getError));
  EXPECT_TRUE(getError.has_value());
}

// One faulty item anywhere in a batch: nothing of it is written. A good batch replaces items with
// the same keys and writes the rest.
TYPED_TEST(RecordStoreTest, WriteBatchIsAllOrNothing) {
  const std::string session = "batch-" + std::to_string(::getpid());
  const std::string path = CameraPathModel::kTableName;
  auto batch = [&](int64_t count, const std::string& label) {
    std::vector<TableItem> items;
    for (int64_t k = 1; k <= count; ++k) {
      items.push_back(
          {path, withRecordId(CameraPathModel(session, k, {{"0", label}}).toItem(), k)});
    }
    items.push_back(
        {SceneUnderstandingModel::kTableName,
         withRecordId(SceneUnderstandingModel(session, 1, 1, 2, 3, label, 1, 1, false).toItem(),
                      1)});
    return items;
  };
  auto stored = [&](const std::string& table) {
    return queryAll(*this->store_, table, AttributeValue::string(session));
  };
  struct Fault {
    const char* name;
    std::function<void(TableItem&)> apply;
  };
  const Fault faults[] = {
      {"no range key", [](TableItem& t) { t.item.erase(kRecordIdAttribute); }},
      {"range key of the wrong type",
       [](TableItem& t) { t.item[kRecordIdAttribute] = AttributeValue::string("7"); }},
      {"invalid number",
       [](TableItem& t) { t.item["FrameId"] = AttributeValue::numberText("NaN"); }},
      {"over 400 KB",
       [](TableItem& t) {
         t.item["Big"] = AttributeValue::bytes(std::string(kMaxItemBytes, 'b'));
       }},
      {"unknown table", [](TableItem& t) { t.table = "NoSuchTable"; }},
  };
  // 30 items: more than one DynamoDB chunk, the fault in the second.
  for (const Fault& f : faults) {
    SCOPED_TRACE(f.name);
    auto items = batch(29, "first");
    f.apply(items[27]);
    EXPECT_TRUE(this->store_->writeBatch(items).has_value());
    EXPECT_TRUE(stored(path).empty());
    EXPECT_TRUE(stored(SceneUnderstandingModel::kTableName).empty());
  }
  ASSERT_FALSE(this->store_->writeBatch(batch(3, "first")));
  // A key named twice in one batch: the later item wins.
  auto twice = batch(29, "second");
  twice.insert(twice.begin() + 5, batch(6, "early").at(5));
  const auto twiceError = this->store_->writeBatch(twice);
  ASSERT_FALSE(twiceError) << twiceError->message;
  const auto items = stored(path);
  ASSERT_EQ(items.size(), 29u);
  for (const Item& item : items) {
    EXPECT_EQ(CameraPathModel::fromItem(item)->transforms->at("0"), "second");
  }
  ASSERT_EQ(stored(SceneUnderstandingModel::kTableName).size(), 1u);
  EXPECT_FALSE(this->store_->writeBatch({})) << "an empty batch is no error";
}

TYPED_TEST(RecordStoreTest, FailureUnderneathIsPrintedNotFatal) {
  auto store = this->kind_.broken();
  if (!store) GTEST_SKIP() << "this store cannot fail underneath";
  auto log = std::make_shared<MemoryLogger>();
  RecordWriter writer(store, log);
  std::promise<bool> done;
  writer.save(CameraPathModel("S", 40, {{"40", "1.0,"}}), [&](bool ok) { done.set_value(ok); });
  EXPECT_FALSE(done.get_future().get());
  const auto prints = log->prints();
  ASSERT_EQ(prints.size(), 1u);
  EXPECT_EQ(prints[0].rfind("Amazon DynamoDB Save Error: ", 0), 0u) << prints[0];
  EXPECT_GT(prints[0].size(), std::string("Amazon DynamoDB Save Error: ").size());
}

}  // namespace
}  // namespace omra
