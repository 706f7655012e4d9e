// The backend store's pure parts: the retry schedule, what an answer of the ingest route means,
// the request body and the checks on rows read back from the outbox file.
#include <gtest/gtest.h>

#include <set>

#include "src/platform/store/attribute_json.h"
#include "src/platform/store/base64.h"
#include "src/platform/store/ingest_batch.h"
#include "src/platform/store/record_outbox.h"
#include "src/platform/store/retry_backoff.h"

namespace omra {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

TEST(RetryBackoffTest, CeilingDoublesUpToTheCap) {
  RetryBackoff backoff({100ms, 1000ms, 15min, 1});
  const std::vector<std::pair<int, int64_t>> cases = {{1, 100},  {2, 200},  {3, 400},     {4, 800},
                                                      {5, 1000}, {6, 1000}, {10000, 1000}};
  for (const auto& [failures, bound] : cases) {
    EXPECT_EQ(backoff.ceiling(failures).count(), bound) << failures;
  }
}

TEST(RetryBackoffTest, FullJitterStaysInRangeAndIsReproducibleFromItsSeed) {
  RetryBackoff a({100ms, 1000ms, 15min, 42}), b({100ms, 1000ms, 15min, 42});
  std::set<int64_t> seen;
  for (int failures = 1; failures <= 8; ++failures) {
    for (int draw = 0; draw < 50; ++draw) {
      const milliseconds wait = a.next(failures, std::nullopt);
      EXPECT_EQ(wait, b.next(failures, std::nullopt));
      EXPECT_GE(wait.count(), 0);
      EXPECT_LE(wait, a.ceiling(failures));
      seen.insert(wait.count());
    }
  }
  EXPECT_GT(seen.size(), 100u) << "waits are spread, not fixed";
}

TEST(RetryBackoffTest, RetryAfterIsAFloorWithinItsBound) {
  RetryBackoff backoff({100ms, 1000ms, 30s, 3});
  const std::vector<std::pair<std::optional<std::chrono::seconds>, milliseconds>> cases = {
      {std::chrono::seconds(3), 3000ms},
      {std::chrono::seconds(7200), 30000ms},  // a confused server cannot park the sender
  };
  for (const auto& [retryAfter, expected] : cases) {
    EXPECT_EQ(backoff.next(1, retryAfter), expected);
  }
  EXPECT_LE(backoff.next(1, std::chrono::seconds(0)), 100ms);
}

HttpResponse answer(long status, const std::string& body,
                    std::map<std::string, std::string> headers = {}) {
  HttpResponse r;
  r.status = status;
  r.body = body;
  Json parsed = Json::parse(body, nullptr, false);
  if (!parsed.is_discarded()) r.json = parsed;
  r.headers = std::move(headers);
  return r;
}

TEST(IngestAnswerTest, EachAnswerMapsToWhatBecomesOfTheBatch) {
  using Kind = IngestOutcome::Kind;
  HttpResponse refused;
  refused.transportError = "Couldn't connect to server";
  struct Case {
    const char* name;
    HttpResponse response;
    Kind kind;
    std::string table;
    int64_t index;
    std::optional<int64_t> retryAfter;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"stored", answer(200, R"({"stored": {"MapData-CameraPath": 3}, "UnprocessedItems": {}})"),
       Kind::kDelivered, "", -1, std::nullopt, ""},
      {"no answer", refused, Kind::kRetry, "", -1, std::nullopt, "Couldn't connect"},
      {"timeout", answer(408, "{}"), Kind::kRetry, "", -1, std::nullopt, "HTTP 408"},
      {"throttled",
       answer(429, R"({"errorMessage": "Too many requests for this account"})",
              {{"retry-after", " 7 "}}),
       Kind::kRetry, "", -1, 7, "Too many requests"},
      {"retry-after as a date",
       answer(503, "{}", {{"retry-after", "Wed, 21 Oct 2015 07:28:00 GMT"}}), Kind::kRetry, "", -1,
       std::nullopt, "HTTP 503"},
      {"retry-after of centuries", answer(503, "{}", {{"retry-after", "7766279541452241918"}}),
       Kind::kRetry, "", -1, 86400, "HTTP 503"},
      {"retry-after of blanks only", answer(503, "{}", {{"retry-after", "\r "}}), Kind::kRetry, "",
       -1, std::nullopt, "HTTP 503"},
      {"server error", answer(500, "oops"), Kind::kRetry, "", -1, std::nullopt, "oops"},
      {"redirect", answer(302, ""), Kind::kRetry, "", -1, std::nullopt, "HTTP 302"},
      {"one bad item", answer(400, R"({"errorMessage": "MapData-PointCloud[3]: no FrameId",
                       "table": "MapData-PointCloud", "index": 3})"),
       Kind::kDropItem, "MapData-PointCloud", 3, std::nullopt, "no FrameId"},
      {"unknown session",
       answer(404, R"({"errorMessage": "Cannot find the session S", "table": "T", "index": 0})"),
       Kind::kDropItem, "T", 0, std::nullopt, "Cannot find the session"},
      {"index of the wrong type",
       answer(400, R"({"errorMessage": "x", "table": "T", "index": "3"})"), Kind::kDropBatch, "",
       -1, std::nullopt, ""},
      {"bad account",
       answer(401, R"({"errorMessage": "Missing or malformed X-Omra-Account header"})"),
       Kind::kDropBatch, "", -1, std::nullopt, "Missing or malformed"},
      {"403 with table and index", answer(403, R"({"table": "T", "index": 1})"), Kind::kDropBatch,
       "", -1, std::nullopt, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const IngestOutcome o = classifyIngestAnswer(c.response);
    EXPECT_EQ(o.kind, c.kind);
    EXPECT_EQ(o.table, c.table);
    EXPECT_EQ(o.index, c.index);
    EXPECT_EQ(o.retryAfter.has_value(), c.retryAfter.has_value());
    if (o.retryAfter && c.retryAfter) {
      EXPECT_EQ(o.retryAfter->count(), *c.retryAfter);
    }
    EXPECT_NE(o.message.find(c.message), std::string::npos) << o.message;
  }
}

TEST(IngestBatchTest, BodyIsTheBatchWriteShapeAndItsSizeIsExact) {
  IngestBatch batch(kMaxIngestBodyBytes, 10);
  const std::vector<std::tuple<int64_t, std::string, std::string>> rows = {
      {11, "MapData-CameraPath", R"({"SessionId":{"S":"A"},"RecordId":{"N":"1"}})"},
      {12, "MapData-DetectedPlanes", R"({"SessionId":{"S":"A"},"RecordId":{"N":"2"}})"},
      {13, "MapData-CameraPath", R"({"SessionId":{"S":"A\"q"},"RecordId":{"N":"3"}})"},
  };
  for (const auto& [id, table, item] : rows) ASSERT_TRUE(batch.add(id, table, item));
  const std::string body = batch.body();
  EXPECT_EQ(batch.bodyBytes(), body.size());
  const Json json = Json::parse(body);
  ASSERT_EQ(json["RequestItems"].size(), 2u);
  const Json& camera = json["RequestItems"]["MapData-CameraPath"];
  ASSERT_EQ(camera.size(), 2u);
  EXPECT_EQ(camera[1]["PutRequest"]["Item"]["SessionId"]["S"], "A\"q");
  EXPECT_EQ(batch.rowAt("MapData-CameraPath", 1), 13);
  EXPECT_EQ(batch.rowAt("MapData-DetectedPlanes", 0), 12);
  EXPECT_EQ(batch.rowAt("MapData-DetectedPlanes", 1), std::nullopt);
  EXPECT_EQ(batch.rowAt("MapData-PointCloud", 0), std::nullopt);
  EXPECT_EQ(batch.rowAt("MapData-CameraPath", -1), std::nullopt);
  EXPECT_EQ(batch.rowIds().size(), 3u);
}

TEST(IngestBatchTest, StopsAtEitherLimit) {
  const std::string item = R"({"SessionId":{"S":"A"},"RecordId":{"N":"1"}})";
  const size_t one = IngestBatch::singleItemBodyBytes("T", item);
  struct Case {
    size_t maxBody, maxItems, fits;
  };
  // A second item costs the item, its wrapper and one comma.
  const size_t more = one - std::string(R"({"RequestItems":{"T":[]}})").size() + 1;
  const std::vector<Case> cases = {{one, 10, 1},
                                   {one - 1, 10, 0},
                                   {one + 2 * more, 10, 3},
                                   {one + 2 * more - 1, 10, 2},
                                   {kMaxIngestBodyBytes, 4, 4}};
  for (const Case& c : cases) {
    IngestBatch batch(c.maxBody, c.maxItems);
    size_t added = 0;
    while (added < 20 && batch.add(static_cast<int64_t>(added), "T", item)) ++added;
    EXPECT_EQ(added, c.fits) << c.maxBody << " " << c.maxItems;
    if (added > 0) {
      EXPECT_EQ(batch.body().size(), batch.bodyBytes());
      EXPECT_LE(batch.bodyBytes(), c.maxBody);
    }
  }
}

TEST(OutboxRowTest, RowsReadBackAreCheckedBeforeTheyAreSent) {
  const std::string account = "0123456789abcdef0123456789abcdef";
  const std::string item =
      R"({"SessionId":{"S":"A"},"RecordId":{"N":"1"},"M":{"M":{"k":{"S":"v"}}}})";
  struct Case {
    const char* name;
    std::string account, table, item;
    const char* why;  // nullptr: accepted
  };
  const std::vector<Case> cases = {
      {"good", account, "MapData-CameraPath", item, nullptr},
      {"short account", account.substr(1), "T", item, "account"},
      {"upper-case account", "0123456789ABCDEF0123456789ABCDEF", "T", item, "account"},
      {"empty table", account, "", item, "table"},
      {"table with a space", account, "Map Data", item, "table"},
      {"not JSON", account, "T", "{\"SessionId\": ", "JSON object"},
      {"an array", account, "T", "[1, 2]", "JSON object"},
      {"empty object", account, "T", "{}", "JSON object"},
      {"attribute of no known type", account, "T", R"({"A": {"L": []}})", "unreadable"},
      {"bad base64", account, "T", R"({"A": {"B": "***"}})", "unreadable"},
      {"map of numbers", account, "T", R"({"A": {"M": {"k": {"N": "1"}}}})", "unreadable"},
      {"deeply nested", account, "T", std::string(2000, '[') + std::string(2000, ']'),
       "JSON object"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string why;
    const auto row = readOutboxRow(7, c.account, c.table, c.item, &why);
    if (c.why == nullptr) {
      ASSERT_TRUE(row) << why;
      EXPECT_EQ(row->id, 7);
      EXPECT_EQ(row->itemJson, c.item);
    } else {
      EXPECT_FALSE(row);
      EXPECT_NE(why.find(c.why), std::string::npos) << why;
    }
  }
}

}  // namespace
}  // namespace omra

namespace omra {
namespace {

// The text written straight from an item is the document's dump, byte for byte, whatever the
// attribute texts hold; text that is not UTF-8 gives none where dump would throw.
TEST(ItemJsonTextTest, MatchesTheDocumentsDumpByteForByte) {
  static constexpr char kControls[] = "nul\0, bell\x07, del\x7f, tab\t";
  const std::string controls(kControls, sizeof kControls - 1);
  const std::vector<Item> items = {
      {},
      {{"SessionId", AttributeValue::string("A-1")}, {"RecordId", AttributeValue::numberText("7")}},
      {{"Quote\"d\\key", AttributeValue::string("line\nbreak\r\"quoted\" back\\slash /")},
       {"Controls", AttributeValue::string(controls)},
       {"Unicode", AttributeValue::string("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80")}},
      {{"Features_C", AttributeValue::bytes(std::string("\x00\xff\x10 binary\n", 11))},
       {"Empty", AttributeValue::bytes("")}},
      {{"Transforms", AttributeValue::stringMap({{"12", "1,0,0,"}, {"3\t", "x\"y"}, {"", ""}})},
       {"NoPoses", AttributeValue::stringMap({})}},
  };
  for (const Item& item : items) {
    const std::string expected = itemToJson(item).dump();
    SCOPED_TRACE(expected);
    EXPECT_EQ(itemToJsonText(item), expected);
  }
  for (const Item& bad : std::vector<Item>{
           {{"Name", AttributeValue::string("cut \xc3")}},
           {{"Bad\xff", AttributeValue::numberText("1")}},
           {{"Transforms", AttributeValue::stringMap({{"1", "\xed\xa0\x80"}})}},
       }) {
    EXPECT_FALSE(itemToJsonText(bad).has_value());
    EXPECT_THROW(itemToJson(bad).dump(), Json::type_error);
  }
}

TEST(Base64Test, DecodesWhatItEncodesAndRefusesWhatIsNotBase64) {
  const std::pair<std::string, std::string> known[] = {
      {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
      {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {std::string("\x00\xff\xfe\x7f", 4), "AP/+fw=="},
  };
  for (const auto& [bytes, text] : known) {
    EXPECT_EQ(base64Encode(bytes), text);
    EXPECT_EQ(base64Decode(text), bytes) << text;
  }
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (size_t n = 0; n <= all.size(); n += 37) {
    EXPECT_EQ(base64Decode(base64Encode(all.substr(0, n))), all.substr(0, n)) << n;
  }
  for (const char* bad :
       {"Zg=", "Z===", "====", "=Zg=", "Zg=a", "Zm9v!A==", "Zm 9", "Zg==Zm8=", "Zm8\n"}) {
    EXPECT_FALSE(base64Decode(bad).has_value()) << bad;
  }
}

}  // namespace
}  // namespace omra
