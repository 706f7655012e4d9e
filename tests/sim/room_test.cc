#include "sim/room.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "sim/object_classes.h"
#include "src/scene/ssd_post_processor.h"

namespace omra::sim {
namespace {

TEST(ObjectClasses, IndicesNameTheKitsLabels) {
  const std::vector<std::string> labels = *SSDPostProcessor(1917, 90, 0.01).classNames;
  ASSERT_EQ(labels.size(), 91u);
  std::vector<ObjectClass> all(furnitureClasses().begin(), furnitureClasses().end());
  all.push_back(tableClass());
  for (const ObjectClass& c : all) {
    ASSERT_GE(c.index, 1);
    ASSERT_LE(c.index, 90);
    EXPECT_EQ(labels[static_cast<size_t>(c.index)], c.name);
    EXPECT_EQ(findClass(c.name), findClass(labels[static_cast<size_t>(c.index)]));
  }
  EXPECT_EQ(findClass("unicorn"), nullptr);
}

TEST(GenerateRoom, SameSeedSameRoomOtherSeedOtherRoom) {
  Room a = generateRoom(11), b = generateRoom(11), c = generateRoom(12);
  ASSERT_EQ(a.objects.size(), b.objects.size());
  ASSERT_EQ(a.points.size(), b.points.size());
  for (size_t i = 0; i < a.objects.size(); ++i) {
    EXPECT_EQ(a.objects[i].className, b.objects[i].className);
    EXPECT_EQ(a.objects[i].center.x, b.objects[i].center.x);
    EXPECT_EQ(a.objects[i].yaw, b.objects[i].yaw);
  }
  for (size_t i = 0; i < a.points.size(); i += 97) {
    EXPECT_EQ(a.points[i].position.z, b.points[i].position.z);
  }
  EXPECT_NE(a.width, c.width);
}

// Over many seeds: object count, the table first, everything inside the room and off the walkway,
// nothing floating, identifiers unique.
TEST(GenerateRoom, FurnishedPlausibly) {
  for (uint64_t seed = 1; seed <= 25; ++seed) {
    SCOPED_TRACE(seed);
    Room r = generateRoom(seed);
    ASSERT_GE(r.objects.size(), 10u);
    ASSERT_LE(r.objects.size(), 30u);
    EXPECT_EQ(r.objects[0].className, "dining table");
    const double tableTop = r.objects[0].size.y;
    for (const SimObject& o : r.objects) {
      EXPECT_EQ(r.object(o.id), &o);
      for (const Vec3& c : Room::corners(o)) {
        EXPECT_LE(std::fabs(c.x), r.width / 2 + 1e-9);
        EXPECT_LE(std::fabs(c.z), r.depth / 2 + 1e-9);
        EXPECT_GE(c.y, -1e-9);
        EXPECT_LE(c.y, r.height);
        double e = (c.x * c.x) / (r.walkA * r.walkA) + (c.z * c.z) / (r.walkB * r.walkB);
        EXPECT_GT(e, 1.0) << o.className << " stands on the walkway";
      }
      double bottom = o.center.y - o.size.y / 2;
      const ObjectClass* cls = findClass(o.className);
      ASSERT_NE(cls, nullptr);
      if (cls->placement == Placement::kTableTop) {
        EXPECT_NEAR(bottom, tableTop, 0.01);
      } else if (cls->placement != Placement::kWall) {
        EXPECT_NEAR(bottom, 0, 1e-9);
      }
    }
    std::vector<uint64_t> ids;
    for (const FeaturePoint& p : r.points) ids.push_back(p.id);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
  }
}

// Feature points lie on what they say they lie on.
TEST(GenerateRoom, FeaturePointsLieOnTheirSurfaces) {
  Room r = generateRoom(3);
  int onObjects = 0;
  for (const FeaturePoint& p : r.points) {
    if (p.objectId > 0) {
      const SimObject* o = r.object(p.objectId);
      ASSERT_NE(o, nullptr);
      Vec3 local = Mat3::rotY(-o->yaw) * (p.position - o->center);
      double outside =
          std::max({std::fabs(local.x) - o->size.x / 2, std::fabs(local.y) - o->size.y / 2,
                    std::fabs(local.z) - o->size.z / 2});
      EXPECT_NEAR(outside, 0, 1e-9);  // on a face
      ++onObjects;
    } else {
      const PlaneSurface& s = r.surfaces[static_cast<size_t>(p.surfaceId)];
      EXPECT_NEAR((p.position - s.center).dot(s.normal), 0, 1e-9);
    }
  }
  EXPECT_GT(onObjects, 30 * 10);
}

TEST(Room, CastRayFindsNearestSurface) {
  Room r;
  r.width = 6, r.depth = 4, r.height = 2.5;
  SimObject box;
  box.id = 1, box.center = {2, 0.5, 0}, box.size = {0.4, 1.0, 0.4};
  r.objects.push_back(box);
  struct Case {
    Vec3 o, d;
    double distance;
    int objectId, surfaceId;
  } cases[] = {
      {{0, 0.5, 0}, {1, 0, 0}, 1.8, 1, -1},  // the box
      {{0, 1.5, 0}, {1, 0, 0}, 3.0, 0, 2},   // over the box to the +x wall
      {{0, 1.0, 0}, {0, -1, 0}, 1.0, 0, 0},  // floor
      {{0, 1.0, 0}, {0, 0, -1}, 2.0, 0, 3},  // -z wall
      {{0, 1.0, 0}, {0, 1, 0}, 1.5, 0, -1},  // ceiling
  };
  for (const Case& c : cases) {
    RayHit h = r.castRay(c.o, c.d);
    EXPECT_NEAR(h.distance, c.distance, 1e-9);
    EXPECT_EQ(std::make_pair(h.objectId, h.surfaceId), std::make_pair(c.objectId, c.surfaceId));
  }
  EXPECT_TRUE(r.occluded({0, 0.5, 0}, {3, 0.5, 0}, 0));
  EXPECT_FALSE(r.occluded({0, 0.5, 0}, {3, 0.5, 0}, 1));  // its own surface does not hide it
  EXPECT_FALSE(r.occluded({0, 1.2, 0}, {3, 1.2, 0}, 0));  // passes over the box
  r.objects[0].slabOnly = true;                           // only the top 4 cm block sight
  EXPECT_FALSE(r.occluded({0, 0.5, 0}, {3, 0.5, 0}, 0));
  EXPECT_TRUE(r.occluded({0, 0.98, 0}, {3, 0.98, 0}, 0));
}

}  // namespace
}  // namespace omra::sim
