// The record ingest route: what a batch must be, that it is stored whole or not at all, that
// re-sending stores nothing twice, and that the localizers' readers keep every record of a frame.
#include <gtest/gtest.h>

#include "server/plane_records.h"
#include "server/record_batch.h"
#include "server/session_records.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"
#include "tests/server/service_testutil.h"

namespace omra::server {
namespace {

using testing::batchJson;
using testing::kAccountA;
using testing::kAccountB;
using testing::oneOfEachRecord;

constexpr const char* kRoute = "/prod/records/batch_write";

class RecordIngestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    map_ = h_.createMap(kAccountA, "kitchen");
    session_ = h_.openSession(kAccountA, "kitchen");
  }
  Answer send(const std::string& body, const std::string& account = kAccountA) {
    return h_.call("POST", kRoute, body, account);
  }
  // Every record item in the five tables, any session.
  size_t storedRecords() { return h_.recordsOf(map_) + h_.recordsOf(session_); }

  testing::ServiceHarness h_;
  std::string map_, session_;
};

TEST_F(RecordIngestTest, StoresABatchWholeAndAResentBatchReplacesItself) {
  auto items = oneOfEachRecord(map_, 1);
  for (TableItem& t : oneOfEachRecord(session_, 1)) items.push_back(std::move(t));
  // Two objects of one frame keep two keys.
  SceneUnderstandingModel second(map_, 4, 3, 0, 1, "table", 0.8f, 8, false);
  items.push_back({SceneUnderstandingModel::kTableName, withRecordId(second.toItem(), 6)});
  const std::string body = batchJson(items).dump();
  const Json want = Json::parse(R"({"stored": {"MapData-CameraPath": 2,
      "MapData-DetectedPlanes": 2, "MapData-ImageFeatures": 2, "MapData-PointCloud": 2,
      "MapData-SceneUnderstanding": 3}, "UnprocessedItems": {}})");
  for (int round = 0; round < 2; ++round) {
    const Answer a = send(body);
    EXPECT_EQ(a.status, 200) << a.body.dump();
    EXPECT_EQ(a.body, want);
    EXPECT_EQ(storedRecords(), items.size()) << "round " << round;
  }
  for (const TableItem& t : items) {
    const std::string& session = t.item.at("SessionId").text;
    auto got = h_.store().get(t.table, {{"SessionId", AttributeValue::string(session)},
                                        {"RecordId", t.item.at("RecordId")}});
    ASSERT_TRUE(got) << t.table;
    EXPECT_EQ(*got, t.item);
  }
  // The localizers' reader sees both objects of frame 4.
  std::optional<StoreError> e;
  EXPECT_EQ(readObservations(h_.store(), map_, &e).size(), 2u);
}

TEST_F(RecordIngestTest, BadBatchesSayWhatIsWrongAndStoreNothing) {
  auto good = oneOfEachRecord(session_, 1);
  // good with item i of the batch changed.
  auto changed = [&](size_t i, std::function<void(Item&)> change) {
    auto items = good;
    change(items[i].item);
    return batchJson(items).dump();
  };
  const std::string cameraPath = CameraPathModel::kTableName;
  const std::string features = ImageFeaturesModel::kTableName;
  const std::string scene = SceneUnderstandingModel::kTableName;
  // Four camera-path records, the third one broken: nothing of the batch may land.
  std::vector<TableItem> run;
  for (int64_t k = 0; k < 4; ++k) {
    run.push_back(
        {cameraPath, withRecordId(CameraPathModel(session_, k * 20, {}).toItem(), k + 1)});
  }
  run[2].item.erase("RecordId");
  Json wrongTable = batchJson(good);
  wrongTable["RequestItems"]["Transformations"] = wrongTable["RequestItems"][cameraPath];
  std::string huge = batchJson(good).dump();
  huge.insert(1, (1 << 20) - huge.size() + 1, ' ');
  struct Case {
    const char* name;
    std::string body;
    const char* says;
    std::optional<std::string> table;  // the item at fault, when one is
    size_t index = 0;
  };
  const Case cases[] = {
      {"not JSON", "{\"RequestItems\":", "Request body is not JSON", {}},
      {"not an object", "[]", "must be a JSON object", {}},
      {"no RequestItems", R"({"Items": {}})", "\"RequestItems\" must be an object", {}},
      {"empty", R"({"RequestItems": {}})", "The batch holds no items", {}},
      {"unknown table", wrongTable.dump(), "Unknown record table \"Transformations\"", {}},
      {"list not an array",
       R"({"RequestItems": {"MapData-CameraPath": {}}})",
       "must be an array",
       {}},
      {"body over 1 MiB", huge, "Request body over 1048576 bytes", {}},
      {"missing RecordId", batchJson(run).dump(), "MapData-CameraPath[2]: \"RecordId\"", cameraPath,
       2},
      {"RecordId zero", changed(3, [](Item& i) { i["RecordId"] = integerNumber(0); }),
       "\"RecordId\" must be a positive integer", cameraPath, 0},
      {"FrameId a string", changed(0, [](Item& i) { i["FrameId"] = AttributeValue::string("4"); }),
       "\"FrameId\" must be an integer", features, 0},
      {"missing FrameId", changed(1, [](Item& i) { i.erase("FrameId"); }),
       "\"FrameId\" must be an integer", scene, 0},
      {"missing SessionId", changed(1, [](Item& i) { i.erase("SessionId"); }),
       "\"SessionId\" must be a string", scene, 0},
      {"SessionId not a UUID",
       changed(1, [](Item& i) { i["SessionId"] = AttributeValue::string("kitchen"); }),
       "must be a session UUID", scene, 0},
      {"model essentials missing", changed(1, [](Item& i) { i.erase("ObjectName"); }),
       "needs \"ObjectId\", \"ObjectName\"", scene, 0},
      {"bad number", changed(1, [](Item& i) { i["PositionX"] = AttributeValue::numberText("1e"); }),
       "cannot be converted to a numeric value: PositionX=1e", scene, 0},
      {"float attribute of the wrong type",
       changed(1, [](Item& i) { i["PositionX"] = AttributeValue::string("1"); }),
       "not a scene-understanding record", scene, 0},
      {"item over 400 KB",
       changed(0,
               [](Item& i) {
                 i["Features_C"] = AttributeValue::bytes(std::string(kMaxItemBytes, 'x'));
               }),
       kItemTooLargeMessage, features, 0},
      {"not a put request",
       R"({"RequestItems": {"MapData-CameraPath": [{"DeleteRequest": {"Key": {}}}]}})",
       "MapData-CameraPath[0]: must be an object holding only \"PutRequest\"", cameraPath, 0},
      {"item not readable",
       R"({"RequestItems": {"MapData-CameraPath": [{"PutRequest": {"Item": {"SessionId": {"SS": []}}}}]}})",
       "the item is not readable", cameraPath, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Answer a = send(c.body);
    EXPECT_EQ(a.status, 400);
    const std::string message = a.body.value("errorMessage", "");
    EXPECT_NE(message.find(c.says), std::string::npos) << message;
    if (c.table) {
      EXPECT_EQ(a.body.value("table", ""), *c.table);
      EXPECT_EQ(a.body.value("index", size_t{99}), c.index);
      EXPECT_EQ(message.rfind(*c.table + "[" + std::to_string(c.index) + "]: ", 0), 0u) << message;
    } else {
      EXPECT_FALSE(a.body.contains("table")) << a.body.dump();
    }
    EXPECT_EQ(storedRecords(), 0u);
  }
  EXPECT_EQ(send(batchJson(good).dump()).status, 200) << "the unbroken batch is fine";
}

TEST_F(RecordIngestTest, ASessionTheAccountDoesNotOwnRefusesTheWholeBatch) {
  const std::string unknown = "00000000-0000-4000-8000-000000000001";
  struct Case {
    const char* name;
    std::string account;
    std::string foreign;  // the session the account does not own
  };
  const std::string mapB = h_.createMap(kAccountB, "attic");
  const Case cases[] = {
      {"A's session sent by B", kAccountB, session_},
      {"a session nobody has", kAccountA, unknown},
      {"B's map sent by A", kAccountA, mapB},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // Good records first (the account's own, where it has one), then the foreign ones.
    auto items = oneOfEachRecord(c.account == kAccountA ? map_ : mapB, 1);
    items.push_back({DetectedPlaneModel::kTableName,
                     withRecordId(DetectedPlaneModel(c.foreign, 3, "P", true, true).toItem(), 9)});
    const Answer a = send(batchJson(items).dump(), c.account);
    EXPECT_EQ(a.status, 404);
    EXPECT_EQ(a.body, (Json{{"errorMessage", "Cannot find the session " + c.foreign},
                            {"table", DetectedPlaneModel::kTableName},
                            {"index", 1}}));
    EXPECT_EQ(storedRecords() + h_.recordsOf(mapB) + h_.recordsOf(unknown), 0u);
  }
}

TEST(RecordBatch, ParsesEveryItemWithItsPlaceInItsTable) {
  const std::string s = "00000000-0000-4000-8000-000000000002";
  auto items = oneOfEachRecord(s, 1);
  items.push_back({CameraPathModel::kTableName,
                   withRecordId(CameraPathModel(s, 20, {{"20", "x"}}).toItem(), 9)});
  std::optional<BatchProblem> problem;
  const RecordBatch batch = parseRecordBatch(batchJson(items).dump(), &problem);
  ASSERT_FALSE(problem) << problem->message;
  ASSERT_EQ(batch.items.size(), items.size());
  std::map<std::string, std::vector<size_t>> places;
  for (size_t i = 0; i < batch.items.size(); ++i) {
    places[batch.items[i].table].push_back(batch.indexes[i]);
    EXPECT_NE(std::find(items.begin(), items.end(), batch.items[i]), items.end());
  }
  EXPECT_EQ(places[CameraPathModel::kTableName], (std::vector<size_t>{0, 1}));
  EXPECT_EQ(places[ImageFeaturesModel::kTableName], (std::vector<size_t>{0}));
}

// The body is read in one pass without a JSON document: the same texts are JSON to it as to a
// document parser, escapes decode as JSON says, problems keep their order, and a key written twice
// inside the batch is refused.
TEST(RecordBatch, ReadsTheBodyAsJsonSaysAndRefusesRepeatedKeys) {
  const std::string s = "00000000-0000-4000-8000-000000000002";
  // One scene-understanding record; NAME, X and EXTRA are filled in per case.
  const std::string scene = R"({"PutRequest":{"Item":{"SessionId":{"S":")" + s +
                            R"("},"RecordId":{"N":"1"},"FrameId":{"N":"4"},"ObjectId":{"N":"3"},)"
                            R"("ObjectName":{"S":NAME},"PositionX":{"N":X},"PositionY":{"N":"0"},)"
                            R"("PositionZ":{"N":"2"}EXTRA}}})";
  const std::string features = R"({"PutRequest":{"Item":{"SessionId":{"S":")" + s +
                               R"("},"RecordId":{"N":"2"},"FrameId":{"N":"4"},"Features_C":{"B":)"
                               R"("AAEC\/w=="}}}})";
  auto fill = [&](std::string name, std::string x = "\"1.5\"", std::string extra = "") {
    std::string t = scene;
    t.replace(t.find("NAME"), 4, name);
    t.replace(t.find("X}"), 1, x);
    t.replace(t.find("EXTRA"), 5, extra);
    return t;
  };
  auto body = [&](const std::string& requests, const std::string& around = "") {
    return "{" + around + R"("RequestItems":{"MapData-SceneUnderstanding":[)" + requests + "]}}";
  };
  const std::string good = fill("\"table\"");
  struct Case {
    const char* name;
    std::string body;
    std::optional<std::string> says;  // none: read, with this ObjectName
    std::string objectName = "table";
    bool itemAtFault = false;
  };
  const Case cases[] = {
      {"byte-order mark and blanks", "\xEF\xBB\xBF \n" + body(good) + "\t\r\n", {}},
      {"escapes",
       body(fill(R"("t\u00e9ble \ud83d\ude00 \"x\" \\ \/ \n")")),
       {},
       "t\xC3\xA9"
       "ble \xF0\x9F\x98\x80 \"x\" \\ / \n"},
      {"other members of every kind",
       body(good, R"("Other":[1e308,-0.5e-3,-0,true,false,null,{"a":[{}]},"\u0000"],)"),
       {}},
      {"bytes with an escaped slash",
       R"({"RequestItems":{"MapData-ImageFeatures":[)" + features + "]}}",
       {}},
      {"trailing text", body(good) + "x", "Request body is not JSON"},
      {"a NUL after the body", body(good) + std::string(1, '\0'), "Request body is not JSON"},
      {"a trailing comma", body(good + ","), "Request body is not JSON"},
      {"a number past a double", body(good, R"("Other":1e309,)"), "Request body is not JSON"},
      {"a lone surrogate", body(fill(R"("\ud800")")), "Request body is not JSON"},
      {"a control byte in a string", body(fill("\"a\tb\"")), "Request body is not JSON"},
      {"bad UTF-8 in a name", body(fill("\"a\xC3(\"")), "Request body is not JSON"},
      {"a bad item before broken text", body(fill("\"t\"", "\"1e\"") + ",{]"),
       "Request body is not JSON"},
      {"a table twice",
       R"({"RequestItems":{"MapData-SceneUnderstanding":[)" + good +
           R"(],"MapData-SceneUnderstanding":[)" + good + "]}}",
       "Record table \"MapData-SceneUnderstanding\" appears twice"},
      {"RequestItems twice", body(good, R"("RequestItems":{},)"), "\"RequestItems\" appears twice"},
      {"an attribute twice", body(fill("\"t\"", "\"1\"", R"(,"FrameId":{"N":"5"})")),
       "attribute FrameId appears twice", "", true},
      {"two type keys", body(fill(R"("t","N":"1")")), "one type key", "", true},
      {"a bad item and a second key: the shape is named",
       body(R"({"PutRequest":{"Item":5},"DeleteRequest":{}})"), "holding only \"PutRequest\"", "",
       true},
      {"a map entry not a string",
       body(fill("\"t\"", "\"1\"", R"(,"Tags":{"M":{"a":{"S":"x"},"b":{"N":"1"}}})")),
       "map entry b is not a string value", "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<BatchProblem> problem;
    const RecordBatch batch = parseRecordBatch(c.body, &problem);
    if (!c.says) {
      ASSERT_FALSE(problem) << problem->message;
      ASSERT_EQ(batch.items.size(), 1u);
      const Item& item = batch.items[0].item;
      if (batch.items[0].table == ImageFeaturesModel::kTableName) {
        EXPECT_EQ(item.at("Features_C").text, std::string("\x00\x01\x02\xff", 4));
      } else {
        EXPECT_EQ(item.at("ObjectName").text, c.objectName);
      }
      continue;
    }
    ASSERT_TRUE(problem);
    EXPECT_NE(problem->message.find(*c.says), std::string::npos) << problem->message;
    EXPECT_EQ(problem->table.has_value(), c.itemAtFault) << problem->message;
  }
}

TEST(PlaneRecords, SeveralEventsOfOneFrameAreAllKeptInWriteOrder) {
  MemoryRecordStore store;
  ASSERT_FALSE(store.createTable(DetectedPlaneModel::schema()));
  const std::string s = "S";
  const std::string flat = "1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1";
  const std::string raised = "1,0,0,0,0,1,0,0,0,0,1,0,0,2,0,1";
  // Frame 5 adds P and Q and moves P; frame 3 (written later, e.g. resent) added R.
  const DetectedPlaneModel events[] = {
      {s, 5, "P", "horizontal", "", false, flat, false},
      {s, 5, "Q", "vertical", "", false, flat, false},
      {s, 5, "P", "horizontal", "", false, raised, false},
      {s, 3, "R", "horizontal", "", false, flat, false},
  };
  int64_t id = 0;
  for (const auto& e : events) {
    ASSERT_FALSE(store.put(DetectedPlaneModel::kTableName, withRecordId(e.toItem(), ++id)));
  }
  std::optional<StoreError> error;
  const auto planes = readPlanes(store, s, &error);
  ASSERT_EQ(planes.size(), 3u);
  EXPECT_EQ(planes[0].planeId, "P");
  EXPECT_DOUBLE_EQ(planes[0].origin[1], 2) << "the later event of frame 5 wins";
  EXPECT_EQ(planes[1].planeId, "Q");
  EXPECT_TRUE(planes[1].vertical);
  EXPECT_EQ(planes[2].planeId, "R");
}

}  // namespace
}  // namespace omra::server
