// The plane refiner against rooms with known transforms: walls settle the heading and the
// horizontal translation, floors and table tops the height, and rough transforms too far off are
// left alone.
#include "server/localizers/plane_refiner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "server/plane_records.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/platform/store/record_store_factory.h"

namespace omra::server {
namespace {

constexpr double kDeg = std::numbers::pi / 180;

PlaneObservation plane(const char* id, bool vertical, Vec3 origin, Vec3 normal) {
  return {id, vertical, origin, normal};
}

// A 6 m x 5 m room (walls facing inwards), its floor and a table top, in the map's frame.
std::vector<PlaneObservation> mapRoom() {
  return {plane("W", true, {-3, 1.2, 0.4}, {1, 0, 0}),
          plane("E", true, {3, 0.8, -1}, {-1, 0, 0}),
          plane("N", true, {0.5, 1, -2.5}, {0, 0, 1}),
          plane("S", true, {-1, 1.5, 2.5}, {0, 0, -1}),
          plane("F", false, {0.2, -1.4, 0.3}, {0, 1, 0}),
          plane("T", false, {1.5, -0.65, -2}, {0, 1, 0})};
}

// The same planes as the session sees them: carried by truth, each origin slid along its plane
// (another session anchors a plane wherever it first saw it).
std::vector<PlaneObservation> seenBy(const Pose4& truth, const std::vector<PlaneObservation>& map,
                                     const std::vector<std::string>& ids) {
  std::vector<PlaneObservation> out;
  for (const PlaneObservation& m : map) {
    if (std::find(ids.begin(), ids.end(), m.planeId) == ids.end()) continue;
    PlaneObservation s = m;
    Vec3 slide = m.vertical ? Vec3{m.normal[2] * 0.7, 0.3, -m.normal[0] * 0.7} : Vec3{0.4, 0, -0.9};
    s.origin =
        truth.apply({m.origin[0] + slide[0], m.origin[1] + slide[1], m.origin[2] + slide[2]});
    s.normal = Pose4{0, 0, 0, truth.theta}.apply(m.normal);
    out.push_back(s);
  }
  return out;
}

TEST(PlaneRefiner, WallsAndFloorsSettleARoughTransform) {
  const Pose4 truth{0.8, 0.12, -1.3, 2.1};
  const std::vector<PlaneObservation> map = mapRoom();
  struct Case {
    const char* name;
    std::vector<std::string> seen;
    Pose4 rough;
  } cases[] = {
      {"all planes, off a little",
       {"W", "E", "N", "S", "F", "T"},
       {truth.tx + 0.1, truth.ty - 0.05, truth.tz + 0.08, truth.theta + 3 * kDeg}},
      {"two walls at right angles",
       {"W", "N", "F"},
       {truth.tx - 0.3, truth.ty + 0.1, truth.tz + 0.25, truth.theta - 8 * kDeg}},
      {"rough already right", {"E", "S", "F"}, truth},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<PlaneRefinement> r =
        PlaneRefiner().refine(c.rough, map, seenBy(truth, map, c.seen));
    ASSERT_TRUE(r.has_value());
    const Pose4& t = r->transform;
    EXPECT_LT(std::hypot(t.tx - truth.tx, t.ty - truth.ty, t.tz - truth.tz), 1e-6);
    EXPECT_NEAR(wrapAngle(t.theta - truth.theta), 0, 1e-9);
    EXPECT_TRUE(r->walls >= 2 && r->bothWays && r->horizontal >= 1);
  }
}

TEST(PlaneRefiner, OneWallFixesHeadingAndItsOwnDirectionOnly) {
  const Pose4 truth{0.5, 0, 0.5, 0.4};
  const std::vector<PlaneObservation> map = mapRoom();
  const Pose4 rough{truth.tx + 0.2, truth.ty, truth.tz + 0.2, truth.theta + 5 * kDeg};
  std::optional<PlaneRefinement> r = PlaneRefiner().refine(rough, map, seenBy(truth, map, {"W"}));
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->walls, 1);
  EXPECT_FALSE(r->bothWays);
  EXPECT_TRUE(PlaneRefiner().canFix(map));
  EXPECT_FALSE(PlaneRefiner().canFix(seenBy(truth, map, {"W", "E", "F"})));
  EXPECT_NEAR(wrapAngle(r->transform.theta - truth.theta), 0, 1e-9);
  // Along the wall's normal the translation is right; across it the rough one stays.
  const Vec3 n = Pose4{0, 0, 0, truth.theta}.apply({1, 0, 0});
  const Vec3 along{n[2], 0, -n[0]};
  auto dot = [](const Vec3& a, double x, double z) { return a[0] * x + a[2] * z; };
  EXPECT_NEAR(dot(n, r->transform.tx, r->transform.tz), dot(n, truth.tx, truth.tz), 1e-6);
  EXPECT_NEAR(dot(along, r->transform.tx, r->transform.tz), dot(along, rough.tx, rough.tz), 1e-6);
}

// Turns each listed plane's normal about the vertical, as a plane estimate's error does.
void skew(std::vector<PlaneObservation>& planes,
          const std::vector<std::pair<std::string, double>>& by) {
  for (PlaneObservation& p : planes) {
    for (const auto& [id, degrees] : by) {
      if (p.planeId == id) p.normal = Pose4{0, 0, 0, degrees * kDeg}.apply(p.normal);
    }
  }
}

TEST(PlaneRefiner, AllWallsOfARectangularRoomShareTheHeadingError) {
  const Pose4 truth{0.8, 0.12, -1.3, 2.1};
  std::vector<PlaneObservation> map = mapRoom();
  std::vector<PlaneObservation> session = seenBy(truth, map, {"W", "N", "F"});
  skew(map, {{"W", 0.6}, {"E", -0.2}, {"N", 0.4}, {"S", -0.4}});  // mean +0.1
  skew(session, {{"W", -0.5}, {"N", 0.7}});                       // mean +0.1
  const Pose4 rough{truth.tx, truth.ty, truth.tz, truth.theta + 4 * kDeg};
  struct Case {
    const char* name;
    double spreadDegrees;
    std::vector<std::pair<std::string, double>> extraSkew;  // on the map
    bool manhattan;
    double headingErrorDegrees;  // what the refined heading should be off by
  } cases[] = {
      // Means of all four map walls and both session walls: the errors cancel.
      {"right-angled room", 3, {}, true, 0.0},
      // The paired walls alone: W is off by -1.1, N by +0.3.
      {"turned off", 0, {}, false, -0.4},
      // One map wall 10 degrees off square: not a rectangular room, so the pairs decide.
      {"not right-angled", 3, {{"E", 10}}, false, -0.4},
  };
  for (const Case& c : cases) {
    std::vector<PlaneObservation> m = map;
    skew(m, c.extraSkew);
    PlaneRefinerOptions options;
    options.manhattanSpreadDegrees = c.spreadDegrees;
    std::optional<PlaneRefinement> r = PlaneRefiner(options).refine(rough, m, session);
    ASSERT_TRUE(r.has_value()) << c.name;
    EXPECT_EQ(r->manhattan, c.manhattan) << c.name;
    EXPECT_NEAR(wrapAngle(r->transform.theta - truth.theta) / kDeg, c.headingErrorDegrees, 0.01)
        << c.name;
  }
}

TEST(PlaneRefiner, LeavesTransformsItCannotPairAlone) {
  const Pose4 truth{0, 0, 0, 1.0};
  const std::vector<PlaneObservation> map = mapRoom();
  const auto all = seenBy(truth, map, {"W", "E", "N", "S", "F"});
  // Too far turned, moved 1.2 m across every wall, or no walls at all.
  EXPECT_FALSE(PlaneRefiner().refine({0, 0, 0, 1.0 + 30 * kDeg}, map, all).has_value());
  EXPECT_FALSE(PlaneRefiner().refine({1.658, 0, -0.361, 1.0}, map, all).has_value());
  EXPECT_FALSE(PlaneRefiner().refine(truth, map, seenBy(truth, map, {"F", "T"})).has_value());
  EXPECT_FALSE(PlaneRefiner().refine(truth, {}, all).has_value());
}

TEST(PlaneRecords, TransformTextGivesOriginNormalAndAxis) {
  // Column by column: x axis, y axis (the normal), z axis, position.
  std::optional<PlaneObservation> p = parsePlaneTransform("0,0,-1,0,0,2,0,0,1,0,0,0,1.5,-0.25,3,1");
  ASSERT_TRUE(p.has_value());
  EXPECT_EQ(p->origin, (Vec3{1.5, -0.25, 3}));
  EXPECT_EQ(p->normal, (Vec3{0, 1, 0}));  // normalised
  EXPECT_EQ(p->axis, (Vec3{0, 0, -1}));
  for (const char* bad :
       {"", "1,2,3", "0,0,-1,0,0,1,0,0,1,0,0,0,1.5,-0.25,3",
        "0,0,-1,0,0,1,0,0,1,0,0,0,1.5,-0.25,3,1,7", "0,0,-1,0,0,x,0,0,1,0,0,0,1.5,-0.25,3,1",
        "1,0,0,0,0,0,0,0,0,0,1,0,0,0,0,1", "0,0,-1,0,0,nan,0,0,1,0,0,0,1,1,1,1"}) {
    EXPECT_FALSE(parsePlaneTransform(bad).has_value()) << bad;
  }
}

// What the kit wrote over a session: a plane's newest state counts, removed planes and other
// sessions' planes do not, unreadable transforms are skipped.
// The outline's middle in the session frame and its sides, from vertices in the anchor's frame;
// nothing from text that is not a list of vertices spanning an area.
TEST(PlaneRecords, OutlineFromBoundaryVertices) {
  // x axis -z, normal +x, z axis +y: a wall at x = 2 whose extent runs along z and up.
  const std::string wall = "0,0,-1,0,1,0,0,0,0,1,0,0,2,1,0,1";
  std::optional<PlaneOutline> o = parsePlaneOutline("-1,0,-0.5|3,0,-0.5|3,0,1.5|-1,0,1.5", wall);
  ASSERT_TRUE(o.has_value());
  EXPECT_NEAR(o->centre[0], 2, 1e-12);
  EXPECT_NEAR(o->centre[1], 1.5, 1e-12);
  EXPECT_NEAR(o->centre[2], -1, 1e-12);
  EXPECT_DOUBLE_EQ(o->longSide, 4);
  EXPECT_DOUBLE_EQ(o->shortSide, 2);
  // Many vertices of a rounder outline: the extent's box counts.
  o = parsePlaneOutline("0,0,1|1,0,0|0,0,-1|-1,0,0|0.7,0,0.7", wall);
  ASSERT_TRUE(o.has_value());
  EXPECT_NEAR(o->centre[1], 1, 1e-12);
  EXPECT_DOUBLE_EQ(o->longSide, 2);
  for (const char* bad : {"", "-", "v", "1,0,1", "0,0,0|1,0,0", "1,0,1|", "1,0,1|2,0", "|1,0,1",
                          "1,0,1||2,0,2", "1,0,1|2,0,nan", "1,0,1;2,0,2", "1,0,1|2,0,2,3"}) {
    EXPECT_FALSE(parsePlaneOutline(bad, wall).has_value()) << bad;
  }
  EXPECT_FALSE(parsePlaneOutline("-1,0,-0.5|3,0,1.5", "0,0,-1,0,1").has_value());
}

TEST(PlaneRecords, NewestStateOfEachPlaneThatIsStillThere) {
  std::shared_ptr<RecordStore> store = makeRecordStore("memory", {}, nullptr);
  ASSERT_FALSE(ensureRecordTables(*store).has_value());
  int64_t recordId = 0;  // write order differs from frame order: the frame decides
  auto save = [&](const DetectedPlaneModel& m) {
    ASSERT_FALSE(store->put(DetectedPlaneModel::kTableName, withRecordId(m.toItem(), ++recordId))
                     .has_value());
  };
  const std::string wall = "0,0,-1,0,1,0,0,0,0,1,0,0,2,1,0,1";  // normal +x, at x = 2
  const std::string moved = "0,0,-1,0,1,0,0,0,0,1,0,0,2.5,1,0,1";
  const std::string floor = "1,0,0,0,0,1,0,0,0,0,1,0,0,-1.4,0,1";
  save(DetectedPlaneModel("S", 1, "WALL", "vertical", "v", false, wall, false));
  save(DetectedPlaneModel("S", 5, "WALL", "vertical", "v", false, moved, false));
  save(DetectedPlaneModel("S", 2, "FLOOR", "horizontal", "v", false, floor, false));
  save(DetectedPlaneModel("S", 3, "GONE", "vertical", "v", false, wall, false));
  save(DetectedPlaneModel("S", 4, "GONE", false, true));
  save(DetectedPlaneModel("S", 6, "BAD", "vertical", "v", false, std::string("-"), false));
  save(DetectedPlaneModel("OTHER", 1, "ELSEWHERE", "vertical", "v", false, wall, false));

  std::optional<StoreError> error;
  std::vector<PlaneObservation> planes = readPlanes(*store, "S", &error);
  ASSERT_FALSE(error.has_value());
  ASSERT_EQ(planes.size(), 2u);
  std::sort(planes.begin(), planes.end(),
            [](const auto& a, const auto& b) { return a.planeId < b.planeId; });
  EXPECT_EQ(planes[0].planeId, "FLOOR");
  EXPECT_FALSE(planes[0].vertical);
  EXPECT_DOUBLE_EQ(planes[0].origin[1], -1.4);
  EXPECT_EQ(planes[1].planeId, "WALL");
  EXPECT_TRUE(planes[1].vertical);
  EXPECT_EQ(planes[1].origin, (Vec3{2.5, 1, 0}));
  EXPECT_EQ(planes[1].normal, (Vec3{1, 0, 0}));
  // Vertices that do not parse leave the plane without an outline, not without the plane.
  EXPECT_FALSE(planes[1].outline.has_value());
  save(DetectedPlaneModel("S", 7, "WALL", "vertical", "0,0,0|1,0,1", false, moved, false));
  planes = readPlanes(*store, "S", &error);
  ASSERT_EQ(planes.size(), 2u);
  const auto wallPlane =
      std::find_if(planes.begin(), planes.end(), [](const auto& p) { return p.planeId == "WALL"; });
  ASSERT_TRUE(wallPlane->outline.has_value());
  EXPECT_NEAR(wallPlane->outline->centre[1], 1.5, 1e-12);
}

}  // namespace
}  // namespace omra::server
