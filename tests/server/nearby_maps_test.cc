// The nearby-maps index: the grid's geometry, the search on every store against a brute-force
// listing, the backfill of older maps, and the route's cap and paging.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <tuple>

#include "server/geo_grid.h"
#include "server/ids.h"
#include "server/map_service.h"
#include "server/map_store.h"
#include "server/server_tables.h"
#include "tests/server/service_testutil.h"
#include "tests/server/store_kinds_testutil.h"

namespace omra::server {
namespace {

struct Point {
  double lat, lon;
};

// ---- the grid ----

TEST(GeoGridTest, CellsNestAcrossLevelsAndFoldTheAntimeridian) {
  const double edge8 = cellDegrees(kGridFinestLevel);
  const Point points[] = {
      {0, 0},         {-0.0, -0.0},     {45, 45},        {-45, -135},     {90, 0},
      {-90, 0},       {90, 180},        {89.9999, -180}, {12.5, 180},     {12.5, -180},
      {edge8, edge8}, {-edge8, -edge8}, {48.85, 2.35},   {-33.86, 151.2}, {0.5 * edge8, 179.99999},
  };
  for (const Point& p : points) {
    SCOPED_TRACE(::testing::Message() << p.lat << "," << p.lon);
    for (int level = 0; level < kGridFinestLevel; ++level) {
      const GridCell coarse = cellOf(level, p.lat, p.lon);
      const GridCell fine = cellOf(level + 1, p.lat, p.lon);
      EXPECT_EQ(fine.row / 4, coarse.row) << "level " << level;
      EXPECT_EQ(fine.col / 4, coarse.col) << "level " << level;
      const auto children = childrenOf(coarse);
      EXPECT_NE(std::find(children.begin(), children.end(), fine), children.end());
      EXPECT_GE(coarse.row, 0);
      EXPECT_LT(coarse.row, gridRows(level));
      EXPECT_GE(coarse.col, 0);
      EXPECT_LT(coarse.col, gridCols(level));
    }
  }
  // The antimeridian is one line: 180 and -180 share their cells.
  for (int level = 0; level < kGridLevels; ++level) {
    EXPECT_EQ(cellOf(level, 12.5, 180), cellOf(level, 12.5, -180));
  }
  // Edges: a point on a cell's south-west corner belongs to that cell.
  EXPECT_EQ(cellOf(1, 0, 0), (GridCell{1, 8, 16}));
  EXPECT_EQ(cellOf(1, -1e-12, -1e-12), (GridCell{1, 7, 15}));
  EXPECT_EQ(cellOf(0, 90, 0).row, 3);
}

TEST(GeoGridTest, HaversineDistances) {
  const struct {
    Point a, b;
    double km, toleranceKm;
  } cases[] = {
      {{48.8566, 2.3522}, {51.5074, -0.1278}, 343.5, 1.0},          // Paris, London
      {{0, 179.9}, {0, -179.9}, 22.24, 0.01},                       // across the date line
      {{90, 0}, {-90, 0}, M_PI * kEarthRadiusMetres / 1000, 1e-6},  // pole to pole
      {{0, 0}, {0, 180}, M_PI * kEarthRadiusMetres / 1000, 1e-6},   // antipodes
      {{89.99, 0}, {89.99, 180}, 2.224, 0.001},                     // over the pole
      {{10, 20}, {10, 20}, 0, 0},
  };
  for (const auto& c : cases) {
    EXPECT_NEAR(haversineMetres(c.a.lat, c.a.lon, c.b.lat, c.b.lon) / 1000, c.km, c.toleranceKm)
        << c.a.lat << "," << c.a.lon << " to " << c.b.lat << "," << c.b.lon;
  }
}

// The search stops and skips on these bounds: a wrong one loses maps.
TEST(GeoGridTest, CellBoundsHoldForEveryPointOfTheCell) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> lat(-90, 90), lon(-180, 180), unit(0, 1);
  for (int level = 0; level < kGridLevels; ++level) {
    const double s = cellDegrees(level);
    for (int i = 0; i < 2000; ++i) {
      // A random cell (near the poles and the date line too), a point in it, and a centre
      // nearby or anywhere.
      const Point anchor{i % 7 == 0 ? 90 - unit(rng) * s : lat(rng),
                         i % 5 == 0 ? 180 - unit(rng) * s : lon(rng)};
      const GridCell cell = cellOf(level, anchor.lat, anchor.lon);
      const double south = static_cast<double>(cell.row) * s - 90;
      const double west = static_cast<double>(cell.col) * s - 180;
      // Corners too, where a wrong bound shows first.
      const Point p = i % 3 == 0 ? Point{south + s * (i % 2), west + s * ((i / 2) % 2)}
                                 : Point{south + unit(rng) * s, west + unit(rng) * s};
      const Point centre = i % 2 ? Point{lat(rng), lon(rng)}
                                 : Point{std::clamp(p.lat + (unit(rng) - 0.5) * 4 * s, -90.0, 90.0),
                                         p.lon + (unit(rng) - 0.5) * 4 * s};
      const double d = haversineMetres(centre.lat, centre.lon, p.lat, p.lon);
      ASSERT_LE(cellMinMetres(cell, centre.lat, centre.lon), d)
          << "level " << level << " point " << p.lat << "," << p.lon;
      ASSERT_GE(cellMaxMetres(cell, centre.lat, centre.lon), d)
          << "level " << level << " point " << p.lat << "," << p.lon;
    }
  }
}

TEST(GeoGridTest, CoveringHoldsEveryPointOfTheBox) {
  const struct {
    const char* name;
    GeoBox box;
  } boxes[] = {
      {"date line", {10, 179.99, 0.05, 0.03}}, {"date line west", {-10, -179.995, 0.5, 0.01}},
      {"north pole", {89.999, 0, 0.002, 180}}, {"south pole", {-89.9, 45, 0.2, 30}},
      {"tiny", {48.85, 2.35, 0.0001, 0.0001}}, {"whole world", {0, 0, 90, 180}},
      {"on cell edges", {0, 0, 45, 45}},       {"centre past the date line", {5, 181, 1, 2}},
  };
  std::mt19937_64 rng(11);
  std::uniform_real_distribution<double> unit(-1, 1);
  for (const auto& b : boxes) {
    SCOPED_TRACE(b.name);
    for (int level = 0; level < kGridLevels; ++level) {
      const auto cells = cellsCovering(b.box, level, 4096);
      if (cells.empty()) continue;  // too many at this level
      const std::set<std::tuple<int64_t, int64_t>> covered = [&] {
        std::set<std::tuple<int64_t, int64_t>> s;
        for (const GridCell& c : cells) {
          EXPECT_TRUE(cellMeetsBox(c, b.box));
          s.emplace(c.row, c.col);
        }
        return s;
      }();
      EXPECT_EQ(covered.size(), cells.size()) << "a cell twice at level " << level;
      for (int i = 0; i < 500; ++i) {
        const double corner = i < 4 ? 1 : unit(rng);  // the edges belong to the box
        const Point p{
            std::clamp(b.box.latitude + (i < 2 ? corner : unit(rng)) * b.box.halfLat, -90.0, 90.0),
            b.box.longitude + (i % 2 ? -corner : corner) * b.box.halfLon};
        ASSERT_TRUE(b.box.contains(p.lat, p.lon));
        const GridCell c = cellOf(level, p.lat, p.lon);
        ASSERT_TRUE(covered.contains({c.row, c.col}))
            << "level " << level << " misses " << p.lat << "," << p.lon;
      }
    }
  }
  // Over the cap: nothing, so that the caller picks a coarser level.
  EXPECT_TRUE(cellsCovering({0, 0, 90, 180}, 3, 16).empty());
  EXPECT_EQ(cellsCovering({0, 0, 90, 180}, 0, 16).size(), 0u);
  EXPECT_EQ(cellsCovering({0, 0, 90, 180}, 0, 32).size(), 32u);
}

// ---- the search, on every store ----

struct PlacedMap {
  std::string account;
  MapRecord record;
};

class NearbyStoreTest : public ::testing::TestWithParam<testing::StoreKind> {
 protected:
  void SetUp() override {
    std::string why;
    records_ = testing::openStoreKind(GetParam(), &why);
    if (!records_) GTEST_SKIP() << GetParam().name << " store unavailable: " << why;
    store_ = std::make_unique<MapStore>(*records_);
    // Each test its own app: the DynamoDB tables are shared by the whole run.
    app_ = std::string("com.example.") +
           ::testing::UnitTest::GetInstance()->current_test_info()->name() + "." + newUuid();
  }

  MapRecord record(const std::string& account, Point p, const std::string& user = "ana") {
    static int serial = 0;
    return MapRecord{newUuid(),
                     app_,
                     account,
                     user,
                     "map-" + std::to_string(++serial),
                     uniqueMicros(),
                     GeoLocation{p.lon, p.lat, 10, 5, 3}};
  }

  // Written as create_map writes them, in few batches for speed.
  void add(const std::vector<MapRecord>& maps, bool indexed = true) {
    std::vector<TableItem> batch;
    for (size_t i = 0; i < maps.size(); ++i) {
      for (TableItem& t : MapStore::mapItems(maps[i], false)) {
        if (indexed || t.table != kMapsByCellTable) batch.push_back(std::move(t));
      }
      if (batch.size() >= 600 || i + 1 == maps.size()) {
        ASSERT_FALSE(records_->writeBatch(batch).has_value());
        batch.clear();
      }
    }
  }

  void markIndexed(const std::string& account) {
    ASSERT_FALSE(records_
                     ->put(kNearbyIndexedTable,
                           {{"AccountKey", AttributeValue::string(accountKey(app_, account))}})
                     .has_value());
  }

  // The listing by brute force: in the box, by distance then UUID.
  static std::vector<std::string> expected(const std::vector<MapRecord>& maps, const GeoBox& box,
                                           const std::optional<std::string>& user) {
    std::vector<std::pair<double, std::string>> in;
    for (const MapRecord& m : maps) {
      if (user && m.userId != *user) continue;
      if (!box.contains(m.location->latitude, m.location->longitude)) continue;
      in.emplace_back(
          haversineMetres(box.latitude, box.longitude, m.location->latitude, m.location->longitude),
          m.uuid);
    }
    std::sort(in.begin(), in.end());
    std::vector<std::string> out;
    for (auto& [d, uuid] : in) out.push_back(uuid);
    return out;
  }

  // Every page of the listing, following the cursors; fails on a page over the limit.
  std::vector<std::string> listAll(const std::string& account, const GeoBox& box, size_t limit,
                                   const std::optional<std::string>& user = std::nullopt) {
    NearbyQuery q{app_, account, box, user, limit, std::nullopt};
    std::vector<std::string> out;
    for (int pages = 0; pages < 1000; ++pages) {
      std::optional<StoreError> e;
      const NearbyPage page = store_->nearbyMaps(q, &e);
      EXPECT_FALSE(e.has_value()) << e->message;
      EXPECT_LE(page.maps.size(), limit);
      double last = -1;
      for (const NearbyMap& m : page.maps) {
        EXPECT_GE(m.metres, last) << "not nearest first";
        last = m.metres;
        out.push_back(m.map.uuid);
      }
      if (!page.next) break;
      EXPECT_EQ(page.maps.size(), limit) << "a short page that says more follow";
      q.after = page.next;
    }
    return out;
  }

  std::shared_ptr<RecordStore> records_;
  std::unique_ptr<MapStore> store_;
  std::string app_;
};

std::vector<Point> scatter(size_t n, Point centre, double spread, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1);
  std::vector<Point> out;
  for (size_t i = 0; i < n; ++i) {
    double lon = centre.lon + u(rng) * spread;
    if (lon > 180) lon -= 360;
    if (lon < -180) lon += 360;
    out.push_back({std::clamp(centre.lat + u(rng) * spread, -90.0, 90.0), lon});
  }
  return out;
}

TEST_P(NearbyStoreTest, PagesMatchTheBruteForceListing) {
  const double e8 = cellDegrees(kGridFinestLevel);
  const struct {
    const char* name;
    std::vector<Point> points;
    GeoBox box;
    size_t limit;
    std::optional<std::string> user;
  } scenarios[] = {
      {"cell edges",
       {{0, 0},
        {45, 45},
        {-45, -45},
        {0, 90},
        {e8, e8},
        {-e8, e8},
        {2 * e8, -e8},
        {44.9, 45},
        {45, 44.99999},
        {-1e-9, 0}},
       {0, 0, 50, 100},
       3,
       std::nullopt},
      {"date line",
       {{10, 179.99},
        {10, -179.99},
        {10.001, 179.999},
        {9.999, -179.996},
        {10, -179.98},
        {10, 179.98},
        {10, 180}},
       {10, 179.995, 0.01, 0.01},
       2,
       std::nullopt},
      {"north pole",
       {{89.9995, -180},
        {89.9995, -90},
        {89.9995, 0},
        {89.9995, 45},
        {89.9995, 179.9},
        {90, 0},
        {89.99, 0},
        {89.998, 100}},
       {89.999, 0, 0.002, 180},
       3,
       std::nullopt},
      {"south pole", scatter(40, {-89.5, 0}, 180, 3), {-89.7, -120, 0.3, 180}, 7, std::nullopt},
      {"many cells", scatter(150, {48, 2}, 30, 4), {48, 2, 20, 20}, 11, std::nullopt},
      {"whole world", scatter(120, {0, 0}, 180, 5), {0, 0, 90, 180}, 25, std::nullopt},
      {"crowded block",
       scatter(400, {48.85, 2.35}, 0.004, 6),
       {48.85, 2.35, 0.003, 0.003},
       9,
       std::nullopt},
      // Coarse cells holding a few maps more or fewer than their short probe.
      {"a few maps a kilometre",
       scatter(14, {40.4, -3.7}, 0.03, 10),
       {40.4, -3.7, 0.05, 0.05},
       4,
       std::nullopt},
      {"five in one block",
       scatter(5, {35.68, 139.7}, 0.002, 11),
       {35.68, 139.7, 0.5, 0.5},
       2,
       std::nullopt},
      {"crowded, one user",
       scatter(300, {-33.86, 151.2}, 0.01, 8),
       {-33.86, 151.2, 0.02, 0.02},
       6,
       "ana"},
  };
  for (const auto& s : scenarios) {
    SCOPED_TRACE(s.name);
    std::vector<MapRecord> mine, theirs;
    for (size_t i = 0; i < s.points.size(); ++i) {
      mine.push_back(record("account-a", s.points[i], i % 2 ? "ana" : "bo"));
      // Another account's maps at the same places must never show.
      if (i % 3 == 0) theirs.push_back(record("account-b", s.points[i], "ana"));
    }
    add(mine);
    add(theirs);
    const std::vector<std::string> want = expected(mine, s.box, s.user);
    ASSERT_FALSE(want.empty());
    EXPECT_EQ(listAll("account-a", s.box, s.limit, s.user), want);
    // One page big enough for all, then the same through the route's cap.
    EXPECT_EQ(listAll("account-a", s.box, want.size() + 1, s.user), want);
    mine.clear();
    app_ += "+";  // the next scenario starts empty
  }
}

TEST_P(NearbyStoreTest, CostFollowsTheMapsNearTheCentreNotTheAccount) {
  // Five maps by the centre and a crowd 40 km away, inside the box too: the page's sixth map
  // (which tells whether another page follows) is in the crowd. Then the account doubles
  // elsewhere, which must not cost one more read.
  std::vector<MapRecord> near, crowd, elsewhere;
  for (Point p : scatter(5, {48.85, 2.35}, 0.0005, 10)) near.push_back(record("a", p));
  for (Point p : scatter(300, {48.85, 2.9}, 0.01, 9)) crowd.push_back(record("a", p));
  for (Point p : scatter(600, {45.76, 4.83}, 0.05, 11)) elsewhere.push_back(record("a", p));
  add(near);
  add(crowd);
  const GeoBox box{48.85, 2.35, 1, 1};
  size_t reads[2] = {0, 0};
  for (int round = 0; round < 2; ++round) {
    if (round == 1) add(elsewhere);
    std::optional<StoreError> e;
    const NearbyPage page = store_->nearbyMaps({app_, "a", box, std::nullopt, 5, std::nullopt}, &e);
    ASSERT_FALSE(e.has_value());
    std::vector<std::string> got;
    for (const NearbyMap& m : page.maps) got.push_back(m.map.uuid);
    EXPECT_EQ(got, expected(near, box, std::nullopt));
    EXPECT_TRUE(page.next.has_value());
    reads[round] = page.itemsRead;
  }
  EXPECT_LT(reads[0], crowd.size() / 2) << "read most of the crowd";
  EXPECT_EQ(reads[1], reads[0]) << "maps far from the box cost reads";
}

TEST_P(NearbyStoreTest, IndexesOlderMapsOnceAndNewAccountsFromTheirFirstMap) {
  const Point here{35.68, 139.76};
  const GeoBox box{here.lat, here.lon, 0.1, 0.1};
  // An account whose maps came before the index: none listed until they are indexed.
  std::vector<MapRecord> old;
  for (Point p : scatter(20, here, 0.01, 12)) old.push_back(record("old", p));
  add(old, /*indexed=*/false);
  EXPECT_TRUE(listAll("old", box, 100).empty());
  // A map created now does not make the account's index complete.
  const MapRecord fresh = record("old", here);
  ASSERT_FALSE(store_->addMap(fresh).has_value());
  ASSERT_FALSE(store_->ensureNearbyIndexed(app_, "old").has_value());
  old.push_back(fresh);
  EXPECT_EQ(listAll("old", box, 100), expected(old, box, std::nullopt));
  EXPECT_TRUE(records_->get(kNearbyIndexedTable,
                            {{"AccountKey", AttributeValue::string(accountKey(app_, "old"))}}));

  // Listing for an account without maps writes nothing (anyone may list under any app id).
  ASSERT_FALSE(store_->ensureNearbyIndexed(app_, "new").has_value());
  EXPECT_FALSE(records_->get(kNearbyIndexedTable,
                             {{"AccountKey", AttributeValue::string(accountKey(app_, "new"))}}));
  // A new account: its first map marks it indexed, so no listing ever re-reads its maps.
  ASSERT_FALSE(store_->addMap(record("new", here)).has_value());
  EXPECT_TRUE(records_->get(kNearbyIndexedTable,
                            {{"AccountKey", AttributeValue::string(accountKey(app_, "new"))}}));
  // An old-style map written after that is not picked up: the mark is trusted (which is why
  // every replica must write the index before any lists).
  add({record("new", here)}, /*indexed=*/false);
  MapStore other(*records_);  // another process, nothing remembered
  ASSERT_FALSE(other.ensureNearbyIndexed(app_, "new").has_value());
  EXPECT_EQ(listAll("new", box, 100).size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Stores, NearbyStoreTest, ::testing::ValuesIn(testing::allStoreKinds()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- the route ----

class NearbyRouteTest : public ::testing::Test {
 protected:
  static constexpr const char* kPath = "/prod/maps/list_nearby_maps";

  void create(const std::string& name, double lat, double lon, const std::string& user) {
    Json body = testing::openingBody(testing::kAccountA, name);
    body["user_id"] = user;
    body["lat"] = lat;
    body["long"] = lon;
    body["alt"] = 1;
    body["horAccuracy"] = 2;
    body["verAccuracy"] = 3;
    const Answer a = h_.post(testing::kAccountA, "/prod/maps/create_map", body);
    EXPECT_EQ(a.status, 200) << a.body.dump();
  }

  static Json listing(double halfDeg = 1) {
    return Json{{"app_id", "com.example.app"},
                {"longitude", 10},
                {"latitude", 50},
                {"longitude_delta", 2 * halfDeg},
                {"latitude_delta", 2 * halfDeg},
                {"developer_key", testing::kAccountA}};
  }

  testing::ServiceHarness h_;
};

TEST_F(NearbyRouteTest, PagesByTokenNearestFirst) {
  // Created far to near, so that creation order is not the answer's order; "twin" shares m0's
  // place, and a map without a location is never listed.
  for (int i = 6; i >= 0; --i) create("m" + std::to_string(i), 50 + 0.01 * i, 10, "u");
  create("twin", 50, 10, "u");
  h_.post(testing::kAccountA, "/prod/maps/create_map",
          testing::openingBody(testing::kAccountA, "no-location"));

  std::vector<std::string> got;
  Json body = listing();
  body["limit"] = 3;
  for (int pages = 0; pages < 10; ++pages) {
    const Answer a = h_.post(testing::kAccountA, kPath, body);
    ASSERT_EQ(a.status, 200) << a.body.dump();
    ASSERT_TRUE(a.body.is_array());
    EXPECT_LE(a.body.size(), 3u);
    for (const Json& m : a.body) got.push_back(m["map_id"]);
    const auto next = a.headers.find(kNextPageHeader);
    if (next == a.headers.end()) break;
    body["page_token"] = next->second;
  }
  ASSERT_EQ(got.size(), 8u);
  EXPECT_EQ(std::set<std::string>(got.begin(), got.begin() + 2),
            (std::set<std::string>{"m0", "twin"}));
  EXPECT_EQ(std::vector<std::string>(got.begin() + 2, got.end()),
            (std::vector<std::string>{"m1", "m2", "m3", "m4", "m5", "m6"}));
}

TEST_F(NearbyRouteTest, CapsTheAnswerAtOneHundred) {
  for (int i = 0; i < 105; ++i) create("m" + std::to_string(i), 50 + 0.001 * i, 10, "u");
  const Answer a = h_.post(testing::kAccountA, kPath, listing());
  ASSERT_EQ(a.status, 200);
  EXPECT_EQ(a.body.size(), kMaxNearbyMaps);
  EXPECT_EQ(a.body.front()["map_id"], "m0");
  EXPECT_EQ(a.body.back()["map_id"], "m99");
  ASSERT_TRUE(a.headers.contains(kNextPageHeader));
  Json next = listing();
  next["page_token"] = a.headers.at(kNextPageHeader);
  const Answer rest = h_.post(testing::kAccountA, kPath, next);
  ASSERT_EQ(rest.status, 200);
  EXPECT_EQ(rest.body.size(), 5u);
  EXPECT_FALSE(rest.headers.contains(kNextPageHeader));
}

TEST_F(NearbyRouteTest, RefusesBadLimitsAndTokens) {
  const struct {
    const char* key;
    Json value;
  } cases[] = {
      {"limit", 0},
      {"limit", 101},
      {"limit", 2.5},
      {"limit", "3"},
      {"limit", -1},
      {"page_token", "abc"},
      {"page_token", "1~"},
      {"page_token", "-1~A"},
      {"page_token", "nan~A"},
      {"page_token", "1e999~A"},
      {"page_token", "1~A B"},
      {"page_token", 5},
  };
  for (const auto& c : cases) {
    Json body = listing();
    body[c.key] = c.value;
    const Answer a = h_.post(testing::kAccountA, kPath, body);
    EXPECT_EQ(a.status, 400) << c.key << "=" << c.value.dump() << ": " << a.body.dump();
  }
  // And the good ones of the same keys.
  Json body = listing();
  body["limit"] = 100;
  body["page_token"] = nearbyTokenText({12.5, "ABC-1"});
  EXPECT_EQ(h_.post(testing::kAccountA, kPath, body).status, 200);
}

TEST(NearbyTokenTest, RoundTripsExactly) {
  for (const NearbyCursor& c :
       {NearbyCursor{0, "A"}, NearbyCursor{0.1 + 0.2, "6F9619FF-8B86-D011"},
        NearbyCursor{20015086.796020572, "Z"}, NearbyCursor{5e-324, "x-y"}}) {
    EXPECT_EQ(parseNearbyToken(nearbyTokenText(c)), c);
  }
}

}  // namespace
}  // namespace omra::server
