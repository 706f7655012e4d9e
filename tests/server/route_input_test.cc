// Hostile bodies against every route, straight through MapService::handle: a clear 400, nothing
// stored, and the process still standing.
#include <gtest/gtest.h>

#include <string>

#include "server/server_tables.h"
#include "tests/server/map_service_testutil.h"

namespace omra::server {
namespace {

using testing::RouteHarness;

const char* const kPostRoutes[] = {
    "/prod/maps/create_map",
    "/prod/maps/create_localization_session",
    "/prod/maps/list_nearby_maps",
    "/prod/maps/place_asset_on_map",
    "/prod/maps/find_assets_on_the_map",
    "/prod/full-image-matcher",
    "/prod/linear-optimizer/initial_transforms",
};

size_t storedItems(RouteHarness& h) {
  size_t n = 0;
  for (const TableSchema& t : serverTableSchemas()) n += h.store().itemCount(t.name);
  return n;
}

std::string errorOf(const Answer& a) {
  return a.body.is_object() && a.body.contains("errorMessage") && a.body["errorMessage"].is_string()
             ? a.body["errorMessage"].get<std::string>()
             : "";
}

TEST(RouteInput, HostileBodiesAnswer400OnEveryRoute) {
  const std::string deep(100000, '[');
  const struct {
    const char* name;
    std::string body;
    const char* says;
  } bodies[] = {
      // The request that took the server down: a deep value and then another key.
      {"deep value then key", R"({"app_id": )" + deep + R"(, "x": 1})", "nested deeper"},
      {"deep object", "{\"a\":" + std::string(5000, '[') + std::string(5000, ']') + "}",
       "nested deeper"},
      {"not utf-8", "{\"app_id\":\"\xff\xfe\",\"map_uuid\":\"\xc3\"}", "invalid UTF-8"},
      {"escaped lone surrogate", R"({"app_id":"\udc00"})", "invalid UTF-8"},
      {"overflowing number", R"({"timestamp":1e400})", "not JSON"},
  };
  for (const char* route : kPostRoutes) {
    for (const auto& b : bodies) {
      SCOPED_TRACE(std::string(route) + ": " + b.name);
      RouteHarness h;
      const size_t before = storedItems(h);
      const Answer a = h.post(route, b.body);
      EXPECT_EQ(a.status, 400);
      EXPECT_NE(errorOf(a).find(b.says), std::string::npos) << errorOf(a);
      EXPECT_NO_THROW((void)a.body.dump()) << "the answer itself must encode";
      EXPECT_EQ(storedItems(h), before);
    }
  }
}

// Query parameters are outside input too; answers quoting them must still encode.
TEST(RouteInput, QueryParametersThatAreNotTextStillGetAnAnswer) {
  RouteHarness h;
  for (const char* id : {"LOC-\xff", "\xc3", "\xed\xa0\x80"}) {
    const Answer a = h.get("/prod/maps/get_best_transform",
                           {{"session_id", id}, {"localizer", "su_localizer\xfe"}});
    EXPECT_GE(a.status, 400);
    EXPECT_NO_THROW((void)a.body.dump()) << ::testing::PrintToString(std::string(id));
  }
}

TEST(RouteInput, PlacementsOutsideAnyMapAreRefused) {
  RouteHarness h;
  const std::string map = h.createMap("room");
  ASSERT_FALSE(map.empty());
  // Two placements, the second at (x, y, 0); asset names unique per call.
  int call = 0;
  auto place = [&](const std::string& x, const std::string& y) {
    const std::string n = std::to_string(++call);
    return h.post("/prod/maps/place_asset_on_map",
                  R"({"map_uuid":")" + map + R"(","timestamp":1,"placements":[)" +
                      R"({"asset_id":"ok)" + n + R"(","x":0,"y":0,"z":0,"orientation":0},)" +
                      R"({"asset_id":"a)" + n + R"(","x":)" + x + R"(,"y":)" + y +
                      R"(,"z":0,"orientation":0}]})");
  };
  const struct {
    std::string x, y;
    int status;
    const char* says;
  } cases[] = {
      {"1e300", "0", 400, "placements[1] \"x\" must be within 10000 m"},
      {"-10000.001", "0", 400, "\"x\" must be within"},
      {"0", "1e30", 400, "placements[1] \"y\" must be within"},
      {"1e999", "0", 400, "not JSON"},
      {"-10000", "10000", 200, ""},
      {"0.25", "-3.5", 200, ""},
  };
  size_t stored = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.x + "," + c.y);
    const size_t before = h.store().itemCount(kPlacementsTable);
    const Answer a = place(c.x, c.y);
    EXPECT_EQ(a.status, c.status) << a.body.dump();
    EXPECT_NE(errorOf(a).find(c.says), std::string::npos) << errorOf(a);
    if (c.status == 200) stored += 2;
    EXPECT_EQ(h.store().itemCount(kPlacementsTable), c.status == 200 ? before + 2 : before)
        << "all or nothing";
  }
  // What was stored reads back as placed.
  const Answer found =
      h.post("/prod/maps/find_assets_on_the_map", R"({"map_uuid":")" + map + "\"}");
  ASSERT_EQ(found.status, 200);
  EXPECT_EQ(found.body["placements"].size(), stored);
}

}  // namespace
}  // namespace omra::server
