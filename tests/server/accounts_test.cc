// Accounts on every route: the header, the allow-list, the stored hash, and isolation of one
// account's maps, sessions, placements, records and transforms from another's.
#include <gtest/gtest.h>

#include <functional>

#include "server/account.h"
#include "server/localizer_jobs.h"
#include "server/map_store.h"
#include "server/server_tables.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/store/attribute_json.h"
#include "tests/server/service_testutil.h"

namespace omra::server {
namespace {

using testing::kAccountA;
using testing::kAccountB;
using testing::openingBody;
using testing::ServiceHarness;

const std::string kMapName = "kitchen";
const std::string kApp = "com.example.app";

struct RouteCall {
  const char* method;
  const char* path;
};
constexpr RouteCall kAllRoutes[] = {
    {"POST", "/prod/maps/create_map"},
    {"POST", "/beta/maps/create_localization_session"},
    {"POST", "/prod/maps/list_nearby_maps"},
    {"POST", "/prod/maps/place_asset_on_map"},
    {"POST", "/prod/maps/find_assets_on_the_map"},
    {"GET", "/prod/maps/get_best_transform"},
    {"POST", "/prod/full-image-matcher"},
    {"POST", "/prod/linear-optimizer/initial_transforms"},
    {"POST", "/beta/records/batch_write"},
};

TEST(AccountHeader, EveryRouteRefusesAMissingOrMalformedHeader) {
  ServiceHarness h;
  const std::optional<std::string> bad[] = {
      std::nullopt,
      "",
      "0123456789ABCDEF0123456789ABCDEF",   // upper case
      "0123456789abcdef0123456789abcde",    // 31 digits
      "0123456789abcdef0123456789abcdef0",  // 33
      "0123456789abcdef0123456789abcdeg",
      " 0123456789abcdef0123456789abcdef",
  };
  for (const RouteCall& route : kAllRoutes) {
    for (const auto& header : bad) {
      SCOPED_TRACE(std::string(route.path) + " header " + header.value_or("(none)"));
      const Answer a = h.call(route.method, route.path, openingBody(kAccountA, "m").dump(), header);
      EXPECT_EQ(a.status, 401);
      EXPECT_EQ(a.body, (Json{{"errorMessage", "Missing or malformed X-Omra-Account header"}}));
    }
    // The header is read before the body: a valid one reaches the route's own checks.
    EXPECT_NE(h.call(route.method, route.path, "not json", kAccountA).status, 401) << route.path;
  }
  EXPECT_EQ(h.totalItems(), 0u);
}

TEST(AccountHeader, AllowListKeepsOtherAccountsOut) {
  MapServiceOptions o;
  o.allowedDeveloperKeys = {kAccountA};
  ServiceHarness h(std::move(o));
  EXPECT_EQ(h.post(kAccountA, "/prod/maps/create_map", openingBody(kAccountA, "m")).status, 200);
  const Json refused{{"errorMessage", "Invalid developer key"}};
  for (const RouteCall& route : kAllRoutes) {
    const Answer a =
        h.call(route.method, route.path, openingBody(kAccountB, "m").dump(), kAccountB);
    EXPECT_EQ(a.status, 403) << route.path;
    EXPECT_EQ(a.body, refused) << route.path;
  }
  EXPECT_EQ(h.store().itemCount(kMapsTable), 1u);
}

TEST(AccountHash, IsSha256OfTheDigestAndTheDigestIsNeverStored) {
  EXPECT_EQ(accountHash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_TRUE(isAccountDigest(kAccountA));

  ServiceHarness h;
  const std::string map = h.createMap(kAccountA, kMapName);
  const std::string session = h.openSession(kAccountA, kMapName);
  const std::string account = accountHash(kAccountA);
  std::optional<StoreError> e;
  MapStore reader(h.store());
  EXPECT_EQ(reader.map(map, &e)->account, account);
  EXPECT_EQ(reader.session(session, &e)->account, account);
  // Every stored item of the account, whole: the hash is there, the digest nowhere.
  std::string everything;
  for (const auto& [table, hash] : std::vector<std::pair<std::string, std::string>>{
           {kMapsTable, map},
           {kLocalizationSessionsTable, session},
           {kMapsByNameTable, nameKey(kApp, account, kMapName)},
           {kMapsByAccountTable, accountKey(kApp, account)}}) {
    const auto items = queryAll(h.store(), table, AttributeValue::string(hash));
    ASSERT_EQ(items.size(), 1u) << table;
    everything += itemToJson(items[0]).dump();
  }
  EXPECT_NE(everything.find(account), std::string::npos);
  EXPECT_EQ(everything.find(kAccountA), std::string::npos);
  EXPECT_EQ(everything.find("DeveloperKey"), std::string::npos);
}

TEST(AllowedKeysFile, ReadsOneDigestALineAndNamesTheFirstBadLine) {
  const std::string a = kAccountA, b = kAccountB;
  struct Case {
    const char* name;
    std::string text;
    std::set<std::string> keys;  // when it parses
    std::string error;           // otherwise
  };
  const Case cases[] = {
      {"empty", "", {}, ""},
      {"comments, blanks and spaces",
       "# accounts\n\n  " + a + "  # the first\r\n\t" + b,
       {a, b},
       ""},
      {"repeated", a + "\n" + a + "\n", {a}, ""},
      {"upper case",
       "# x\n" + a + "\n0123456789ABCDEF0123456789ABCDEF\n",
       {},
       "line 3: not a developer-key digest (32 lower-case hexadecimal digits)"},
      {"two on a line", a + " " + b, {}, "line 1: not a developer-key digest"},
      {"the raw key", "developer key of A", {}, "line 1: not a developer-key digest"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::set<std::string> keys;
    std::string error;
    const bool ok = parseAllowedKeys(c.text, &keys, &error);
    EXPECT_EQ(ok, c.error.empty());
    if (ok) {
      EXPECT_EQ(keys, c.keys);
    } else {
      EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
    }
  }
}

// Account A holds a located map with a placement, a localization session on it, records under
// both and a transform result; account B tries every route on them.
class IsolationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Json located = openingBody(kAccountA, kMapName);
    located.update(
        Json{{"long", 10}, {"lat", 50}, {"alt", 1}, {"horAccuracy", 2}, {"verAccuracy", 3}});
    const Answer created = h_.post(kAccountA, "/prod/maps/create_map", located);
    ASSERT_EQ(created.status, 200);
    map_ = created.body["uuid"];
    session_ = h_.openSession(kAccountA, kMapName);
    ASSERT_EQ(h_.post(kAccountA, "/prod/maps/place_asset_on_map", placement(map_)).status, 200);
    auto records = testing::oneOfEachRecord(map_, 1);
    for (TableItem& t : testing::oneOfEachRecord(session_, 1)) records.push_back(std::move(t));
    ASSERT_EQ(h_.post(kAccountA, "/prod/records/batch_write", testing::batchJson(records)).status,
              200);
    TransformResultModel r{session_, 100, "0.8", "1,0,2,0.5", kSuLocalizer, false};
    ASSERT_FALSE(h_.store().put(TransformResultModel::kTableName, r.toItem()));
    // B's own map and session elsewhere.
    h_.createMap(kAccountB, "attic");
    sessionB_ = h_.openSession(kAccountB, "attic");
  }

  static Json placement(const std::string& map) {
    return Json{{"map_uuid", map},
                {"placements",
                 Json::array({Json{
                     {"asset_id", "lamp"}, {"x", 1}, {"y", 2}, {"z", 3}, {"orientation", 0.5}}})},
                {"timestamp", 1}};
  }
  static Json nearby(const std::string& digest) {
    return Json{{"app_id", kApp},       {"longitude", 10},     {"latitude", 50},
                {"longitude_delta", 2}, {"latitude_delta", 2}, {"developer_key", digest}};
  }

  // Everything of A's, as stored.
  std::string snapshot() {
    const std::string account = accountHash(kAccountA);
    std::string out;
    for (const TableSchema& t : allTableSchemas()) {
      for (const std::string& hash :
           {map_, session_, nameKey(kApp, account, kMapName), accountKey(kApp, account)}) {
        for (const Item& item : queryAll(h_.store(), t.name, AttributeValue::string(hash))) {
          out += t.name + " " + itemToJson(item).dump() + "\n";
        }
      }
    }
    return out;
  }

  ServiceHarness h_;
  std::string map_, session_, sessionB_;
};

TEST_F(IsolationTest, AnotherAccountSeesNothingAndChangesNothing) {
  // Each call takes a map id and a session id; B's answer for A's ids must be the answer for ids
  // that do not exist at all, and a refusal.
  using Call = std::function<Answer(const std::string& account, const std::string& map,
                                    const std::string& session)>;
  auto post = [&](const char* path,
                  std::function<Json(const std::string&, const std::string&)> body) {
    return [this, path, body](const std::string& account, const std::string& map,
                              const std::string& session) {
      return h_.post(account, path, body(map, session));
    };
  };
  struct Case {
    const char* name;
    Call call;
    int refused;  // B's status
    int owner;    // A's status for the same call; 0: not asked
  };
  const Case cases[] = {
      {"place an asset",
       post("/prod/maps/place_asset_on_map", [](auto& m, auto&) { return placement(m); }), 404,
       200},
      {"find assets",
       post("/prod/maps/find_assets_on_the_map",
            [](auto& m, auto&) {
              return Json{{"map_uuid", m}};
            }),
       200, 200},
      {"best transform",
       [this](const std::string& account, const std::string&, const std::string& s) {
         return h_.call("GET", "/prod/maps/get_best_transform", "", account,
                        {{"session_id", s}, {"localizer", kSuLocalizer}});
       },
       200, 200},
      {"image matcher",
       post("/prod/full-image-matcher",
            [](auto&, auto& s) {
              return Json{{"uuid", s}};
            }),
       404, 200},
      {"transforms for A's pair",
       post("/prod/linear-optimizer/initial_transforms",
            [](auto& m, auto& s) {
              return Json{
                  {"mapping_session_id", m}, {"localization_session_id", s}, {"is_seeded", false}};
            }),
       404, 200},
      {"B's session against A's map",
       post("/prod/linear-optimizer/initial_transforms",
            [this](auto& m, auto&) {
              return Json{{"mapping_session_id", m},
                          {"localization_session_id", sessionB_},
                          {"is_seeded", true}};
            }),
       404, 0},
      {"records under A's map",
       post("/prod/records/batch_write",
            [](auto& m, auto&) { return testing::batchJson(testing::oneOfEachRecord(m, 1)); }),
       404, 200},
      {"records under A's session",
       post("/prod/records/batch_write",
            [](auto&, auto& s) { return testing::batchJson(testing::oneOfEachRecord(s, 50)); }),
       404, 200},
      {"open a session on A's map name",
       post("/prod/maps/create_localization_session",
            [](auto&, auto&) { return openingBody(kAccountB, kMapName); }),
       404, 0},
  };
  const std::string before = snapshot();
  const uint64_t runsBefore = h_.jobs().stats().runs + h_.jobs().stats().folded;
  const std::string absentMap = "00000000-0000-4000-8000-00000000000A";
  const std::string absentSession = "00000000-0000-4000-8000-00000000000B";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Answer got = c.call(kAccountB, map_, session_);
    EXPECT_EQ(got.status, c.refused) << got.body.dump();
    std::string absent = c.call(kAccountB, absentMap, absentSession).body.dump();
    for (auto [from, to] : {std::pair{absentMap, map_}, std::pair{absentSession, session_}}) {
      for (size_t at; (at = absent.find(from)) != std::string::npos;)
        absent.replace(at, from.size(), to);
    }
    EXPECT_EQ(got.body.dump(), absent) << "answered unlike an unknown id";
  }
  EXPECT_EQ(h_.post(kAccountB, "/prod/maps/list_nearby_maps", nearby(kAccountB)).body,
            Json::array());
  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(h_.jobs().stats().runs + h_.jobs().stats().folded, runsBefore)
      << "a localizer was queued";

  // The same calls by A reach A's data.
  for (const Case& c : cases) {
    if (c.owner == 0) continue;
    const Answer own = c.call(kAccountA, map_, session_);
    EXPECT_EQ(own.status, c.owner) << c.name << " " << own.body.dump();
  }
  EXPECT_EQ(h_.post(kAccountA, "/prod/maps/list_nearby_maps", nearby(kAccountA)).body.size(), 1u);
}

TEST_F(IsolationTest, ABodyNamingAnotherDeveloperKeyIsForbidden) {
  const Json mismatch{{"errorMessage", "The developer key does not match the account"}};
  const std::string before = snapshot();
  for (const auto& [path, body] : std::vector<std::pair<const char*, Json>>{
           {"/prod/maps/create_map", openingBody(kAccountA, "intruder")},
           {"/prod/maps/create_localization_session", openingBody(kAccountA, kMapName)},
           {"/prod/maps/list_nearby_maps", nearby(kAccountA)}}) {
    const Answer a = h_.post(kAccountB, path, body);
    EXPECT_EQ(a.status, 403) << path;
    EXPECT_EQ(a.body, mismatch) << path;
  }
  EXPECT_EQ(snapshot(), before);
}

TEST_F(IsolationTest, ALocalizerRunsOnlyForTheSessionsOwnMap) {
  const std::string otherMap = h_.createMap(kAccountA, "hall");
  const Answer a = h_.post(kAccountA, "/prod/linear-optimizer/initial_transforms",
                           Json{{"mapping_session_id", otherMap},
                                {"localization_session_id", session_},
                                {"is_seeded", false}});
  EXPECT_EQ(a.status, 400);
  EXPECT_EQ(a.body["errorMessage"],
            "The map " + otherMap + " is not the map of the localization session " + session_);
}

}  // namespace
}  // namespace omra::server
