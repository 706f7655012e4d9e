// The DynamoDB store's wire behaviour: signing headers, retries, and what a real AWS client reads.
#include "src/platform/store/dynamodb_record_store.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <cstdio>
#include <future>
#include <set>
#include <sstream>

#include "omrakit/platform/http_client.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/store/base64.h"
#include "tests/platform/loopback_server_testutil.h"
#include "tests/platform/store/dynalite_testutil.h"

namespace omra {
namespace {

using Script = std::vector<testing::RecordingServer::Reply>;

// A fake DynamoDB's answer.
testing::RecordingServer::Reply dynamo(int status, std::string body) {
  return {status, std::move(body), "application/x-amz-json-1.0"};
}

std::string awsError(const std::string& type, const std::string& message) {
  return Json{{"__type", "com.amazonaws.dynamodb.v20120810#" + type}, {"message", message}}.dump();
}

std::optional<StoreError> saveAndWait(RecordStore& store, const std::string& table, Item item) {
  std::promise<std::optional<StoreError>> done;
  store.save(table, std::move(item), [&](std::optional<StoreError> e) { done.set_value(e); });
  return done.get_future().get();
}

TEST(DynamoDbRecordStoreTest, RetriesOnlyThrottlingAndServerErrors) {
  struct Case {
    const char* name;
    Script script;
    size_t requests;
    const char* errorStart;  // empty when the save succeeds
  };
  const auto throttled = dynamo(400, awsError("ThrottlingException", "slow down"));
  const auto overProvisioned =
      dynamo(400, awsError("ProvisionedThroughputExceededException", "slow"));
  const auto serverError = dynamo(500, awsError("InternalServerError", "boom"));
  const auto invalid = dynamo(400, awsError("ValidationException", "bad item"));
  const std::vector<Case> cases = {
      {"throttled twice then stored", {throttled, overProvisioned, dynamo(200, "{}")}, 3, ""},
      {"server error every time", {serverError}, 3, "InternalServerError: boom"},
      {"503 without a body", {dynamo(503, "")}, 3, "Unreadable answer from DynamoDB (HTTP 503)"},
      {"validation error at once", {invalid}, 1, "ValidationException: bad item"},
      {"garbage answer at once", {dynamo(200, "<html>")}, 1, "Unreadable answer"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::RecordingServer server(c.script);
    DynamoDbRecordStore::Options o;
    o.endpoint = server.origin();
    o.backoffBase = std::chrono::milliseconds(2);
    DynamoDbRecordStore store(o, nullptr);
    const auto error = saveAndWait(store, "T", {{"SessionId", AttributeValue::string("S")}});
    EXPECT_EQ(error.has_value(), *c.errorStart != 0);
    const std::string message = error.value_or(StoreError{}).message;
    EXPECT_EQ(message.rfind(c.errorStart, 0), 0u) << message;
    EXPECT_EQ(server.requests().size(), c.requests);
  }
}

TEST(DynamoDbRecordStoreTest, SignsWithSigV4AndNamesTheOperation) {
  testing::RecordingServer server(
      {dynamo(200, R"({"Item": {"SessionId": {"S": "S"}, "N": {"N": "2"}}})")});
  DynamoDbRecordStore::Options o;
  o.endpoint = server.origin() + "/";
  o.region = "eu-west-2";
  o.accessKeyId = "AKIDEXAMPLE";
  o.secretAccessKey = "secret";
  o.sessionToken = "token-1";
  DynamoDbRecordStore store(o, nullptr);
  std::optional<StoreError> error;
  const auto item = store.get("T", {{"SessionId", AttributeValue::string("S")}}, &error);
  ASSERT_TRUE(item.has_value()) << error->message;
  EXPECT_EQ(item->at("N"), AttributeValue::numberText("2"));
  ASSERT_EQ(server.requests().size(), 1u);
  const httplib::Request req = server.requests()[0];
  EXPECT_EQ(req.get_header_value("X-Amz-Target"), "DynamoDB_20120810.GetItem");
  EXPECT_EQ(req.get_header_value("Content-Type"), "application/x-amz-json-1.0");
  EXPECT_EQ(req.get_header_value("X-Amz-Security-Token"), "token-1");
  const std::string auth = req.get_header_value("Authorization");
  EXPECT_EQ(auth.rfind("AWS4-HMAC-SHA256 Credential=AKIDEXAMPLE/", 0), 0u) << auth;
  EXPECT_NE(auth.find("/eu-west-2/dynamodb/aws4_request"), std::string::npos) << auth;
  EXPECT_NE(auth.find("x-amz-target"), std::string::npos) << auth;
  const Json body = Json::parse(req.body);
  EXPECT_EQ(body["TableName"], "T");
  EXPECT_EQ(body["Key"]["SessionId"]["S"], "S");
  EXPECT_TRUE(body["ConsistentRead"].get<bool>());
}

TEST(DynamoDbRecordStoreTest, AwsJavaScriptSdkReadsTheAttributeTypesWeMean) {
  std::string why;
  auto* server = testing::sharedDynalite(&why);
  if (!server) GTEST_SKIP() << why;
  DynamoDbRecordStore::Options o;
  o.endpoint = server->endpoint();
  DynamoDbRecordStore store(o, nullptr);
  ASSERT_FALSE(ensureRecordTables(store).has_value());

  const std::string s = "SDK-SESSION";
  const ImageFeaturesModel features(s, 3, {1, 0.5});
  TransformResultModel result;
  result.sessionId = s;
  result.timestamp = 1763770000.25;
  result.localizer = "full_image_matcher";
  result.suppress = true;
  for (auto [table, item] : std::vector<std::pair<std::string, Item>>{
           {ImageFeaturesModel::kTableName, withRecordId(features.toItem(), 1)},
           {SceneUnderstandingModel::kTableName,
            withRecordId(SceneUnderstandingModel(s, 4, 0.5f, 1, 2, "cup", 0.75f, 9, false).toItem(),
                         2)},
           {DetectedPlaneModel::kTableName,
            withRecordId(DetectedPlaneModel(s, 5, "P", false, true).toItem(), 3)},
           {CameraPathModel::kTableName,
            withRecordId(CameraPathModel(s, 0, {{"1", "1.0,"}}).toItem(), 4)},
           {PointCloudModel::kTableName,
            withRecordId(PointCloudModel(s, 0, {{1, {7}}}, {{7, {}}}).toItem(), 5)},
           {TransformResultModel::kTableName, result.toItem()}}) {
    const auto error = saveAndWait(store, table, item);
    ASSERT_FALSE(error.has_value()) << error->message;
  }

  // The script's stderr goes to the test's own output.
  const std::string command =
      "NODE_PATH='" + testing::peersDir() + "/node_modules' node '" + OMRA_SOURCE_DIR +
      "/tests/platform/store/read_items_with_aws_sdk.cjs' '" + server->endpoint() + "' " + s;
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
  ASSERT_EQ(pclose(pipe), 0) << out;
  const Json read = Json::parse(out, nullptr, false);
  ASSERT_FALSE(read.is_discarded()) << out;

  // Attribute name:type pairs of a table's first item, as the SDK read them.
  const auto types = [&](const char* table) {
    std::set<std::string> t;
    for (auto& [name, typed] : read[table].at(0).items())
      t.insert(name + ":" + typed[0].get<std::string>());
    return t;
  };
  const auto expected = [](const std::string& text) {
    std::set<std::string> t;
    std::istringstream in(text);
    for (std::string pair; in >> pair;) t.insert(pair);
    return t;
  };
  const std::vector<std::pair<const char*, const char*>> tables = {
      {"MapData-ImageFeatures", "SessionId:S RecordId:N FrameId:N Timestamp:N Features_C:B"},
      {"MapData-SceneUnderstanding",
       "SessionId:S RecordId:N FrameId:N PositionX:N PositionY:N PositionZ:N ObjectName:S "
       "Confidence:N "
       "ObjectId:N Timestamp:N IsLocalizationSession:N"},
      {"MapData-DetectedPlanes",
       "SessionId:S RecordId:N FrameId:N PlaneId:S Timestamp:N IsLocalizationSession:N "
       "IsRemoved:N"},
      {"MapData-CameraPath", "SessionId:S RecordId:N FrameId:N Timestamp:N Transforms:M"},
      {"MapData-PointCloud", "SessionId:S RecordId:N FrameId:N FramesToFeatureId_C:B Features_C:B"},
      {"Transformations", "SessionId:S Timestamp:N Localizer:S Suppress:N"},
  };
  for (const auto& [table, pairs] : tables) EXPECT_EQ(types(table), expected(pairs)) << table;
  // Values as the SDK decodes them.
  const Json& f = read["MapData-ImageFeatures"][0];
  EXPECT_EQ(f["Features_C"][1], base64Encode(*features.featuresC));
  EXPECT_EQ(f["FrameId"][1], "3");
  EXPECT_EQ(read["MapData-DetectedPlanes"][0]["IsRemoved"][1], "1");
  EXPECT_EQ(read["Transformations"][0]["Suppress"][1], "1");
  EXPECT_EQ(read["Transformations"][0]["Timestamp"][1], "1763770000.25");
  EXPECT_EQ(read["MapData-CameraPath"][0]["Transforms"][1]["1"], Json::array({"S", "1.0,"}));
}

}  // namespace
}  // namespace omra
