// Where the tracker puts a detected object's middle: rays recovered from hit tests, and the depth
// behind the visible faces, against a pinhole camera filming boxes whose middles are known.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>

#include "src/foundation/object_sizes.h"
#include "src/scene/detection_rays.h"
#include "src/scene/object_3d_tracker.h"

namespace omra {
namespace {

constexpr float kDegree = std::numbers::pi_v<float> / 180;

// A camera at position, turned by yaw about the vertical and tilted down by pitch, with a 60 by
// 45 degree field of view; image points run 0..1 right and down.
struct Pinhole {
  Vector3 position;
  float yaw = 0, pitch = 0;

  Matrix4x4 worldFromCamera() const {
    const float cy = std::cos(yaw), sy = std::sin(yaw), cp = std::cos(pitch), sp = std::sin(pitch);
    Matrix4x4 m;
    m.columns[0] = {cy, 0, -sy, 0};             // right
    m.columns[1] = {sy * sp, cp, cy * sp, 0};   // up
    m.columns[2] = {sy * cp, -sp, cy * cp, 0};  // backwards
    m.columns[3] = {position.x, position.y, position.z, 1};
    return m;
  }
  static float tanX() { return std::tan(30 * kDegree); }
  static float tanY() { return std::tan(22.5f * kDegree); }
  Vector3 ray(Float2 p) const {
    const Matrix4x4 m = worldFromCamera();
    const float tx = (2 * p.x - 1) * tanX(), ty = (1 - 2 * p.y) * tanY();
    const Float4* c = m.columns.data();
    return Vector3(tx * c[0].x + ty * c[1].x - c[2].x, tx * c[0].y + ty * c[1].y - c[2].y,
                   tx * c[0].z + ty * c[1].z - c[2].z)
        .normalized();
  }
  Float2 project(const Vector3& world) const {
    const Matrix4x4 m = worldFromCamera();
    const Float4* c = m.columns.data();
    const Vector3 d = world - position;
    const float x = d.x * c[0].x + d.y * c[0].y + d.z * c[0].z;
    const float y = d.x * c[1].x + d.y * c[1].y + d.z * c[1].z;
    const float z = d.x * c[2].x + d.y * c[2].y + d.z * c[2].z;
    return {(x / -z / tanX() + 1) / 2, (1 - y / -z / tanY()) / 2};
  }
};

// A box standing on the floor (y = 0), turned by yaw.
struct Box {
  Vector3 centre;  // of the footprint, at half height
  float length = 1, depth = 1, height = 1, yaw = 0;

  // Where a ray first meets the box or, past it, the floor.
  std::optional<Vector3> hit(const Vector3& from, const Vector3& dir) const {
    const float c = std::cos(yaw), s = std::sin(yaw);
    auto local = [&](const Vector3& v, bool point) {
      const Vector3 d = point ? v - centre : v;
      return Vector3(c * d.x - s * d.z, d.y, s * d.x + c * d.z);
    };
    const Vector3 o = local(from, true), r = local(dir, false);
    const float half[3] = {length / 2, height / 2, depth / 2};
    const float oc[3] = {o.x, o.y, o.z}, rc[3] = {r.x, r.y, r.z};
    float lo = 0, hi = 1e9f;
    for (int k = 0; k < 3; ++k) {
      if (std::fabs(rc[k]) < 1e-9f) {
        if (std::fabs(oc[k]) > half[k]) lo = hi + 1;
        continue;
      }
      const float a = (-half[k] - oc[k]) / rc[k], b = (half[k] - oc[k]) / rc[k];
      lo = std::max(lo, std::min(a, b)), hi = std::min(hi, std::max(a, b));
    }
    if (lo <= hi) return from + dir * lo;
    if (dir.y < 0) return from + dir * (-from.y / dir.y);
    return std::nullopt;
  }
  std::vector<Vector3> corners() const {
    std::vector<Vector3> out;
    const float c = std::cos(yaw), s = std::sin(yaw);
    for (float a : {-0.5f, 0.5f}) {
      for (float b : {-0.5f, 0.5f}) {
        for (float h : {-0.5f, 0.5f}) {
          const float x = a * length, z = b * depth;
          out.push_back(
              {centre.x + c * x + s * z, centre.y + h * height, centre.z - s * x + c * z});
        }
      }
    }
    return out;
  }
};

// The tracker's hit grid over the box's image: 5 by 5 points from a fifth of the way in to the far
// edges, each hit where its ray meets the box or the floor.
HitPoints filmed(const Pinhole& camera, const Box& box) {
  HitPoints hits;
  float lo[2] = {1e9f, 1e9f}, hi[2] = {-1e9f, -1e9f};
  for (const Vector3& corner : box.corners()) {
    const Float2 p = camera.project(corner);
    lo[0] = std::min(lo[0], p.x), hi[0] = std::max(hi[0], p.x);
    lo[1] = std::min(lo[1], p.y), hi[1] = std::max(hi[1], p.y);
  }
  hits.imageRect = {lo[0], lo[1], hi[0] - lo[0], hi[1] - lo[1]};
  for (int i = 1; i <= 5; ++i) {
    for (int j = 1; j <= 5; ++j) {
      const Float2 p{lo[0] + (hi[0] - lo[0]) * static_cast<float>(i) / 5,
                     lo[1] + (hi[1] - lo[1]) * static_cast<float>(j) / 5};
      if (std::optional<Vector3> h = box.hit(camera.position, camera.ray(p))) {
        hits.points.push_back(*h);
        hits.imagePoints.push_back(p);
      }
    }
  }
  return hits;
}

float angleBetween(const Vector3& a, const Vector3& b) {
  return std::acos(std::clamp(a.normalized().dot(b.normalized()), -1.f, 1.f));
}

TEST(DetectionRaysTest, RecoverTheRayThroughAnyImagePoint) {
  const Pinhole camera{{1, 1.5f, 2}, 35 * kDegree, -20 * kDegree};
  const Box couch{{1.5f, 0.425f, -1.5f}, 1.9f, 0.9f, 0.85f, 20 * kDegree};
  HitPoints hits = filmed(camera, couch);
  ASSERT_GE(hits.points.size(), 20u);
  const std::optional<DetectionRays> rays =
      DetectionRays::fit(hits.points, hits.imagePoints, camera.worldFromCamera());
  ASSERT_TRUE(rays);
  // Anywhere in the image, not only where the hits were tested.
  for (Float2 p : {Float2{0.5f, 0.5f}, Float2{0.1f, 0.9f}, Float2{0.95f, 0.05f}}) {
    EXPECT_LT(angleBetween(rays->direction(p), camera.ray(p)), 0.05f * kDegree)
        << p.x << "," << p.y;
  }
  // Hits a degree off their rays (a feature point beside the ray) still give the rays closely.
  HitPoints beside = hits;
  for (size_t i = 0; i < beside.points.size(); ++i) {
    const float d = (beside.points[i] - camera.position).length();
    const float sign = i % 2 ? 1.f : -1.f;
    beside.points[i] = beside.points[i] + Vector3(sign, -sign, sign * 0.5f) * (d * kDegree);
  }
  const std::optional<DetectionRays> near =
      DetectionRays::fit(beside.points, beside.imagePoints, camera.worldFromCamera());
  ASSERT_TRUE(near);
  EXPECT_LT(angleBetween(near->direction({0.5f, 0.5f}), camera.ray({0.5f, 0.5f})), 0.5f * kDegree);
}

TEST(DetectionRaysTest, RefuseWhatDoesNotTellTheRays) {
  const Pinhole camera{{0, 1.5f, 0}, 0, 0};
  const Matrix4x4 pose = camera.worldFromCamera();
  auto along = [&](Float2 p, float depth) { return camera.position + camera.ray(p) * depth; };
  const std::vector<Float2> corner{{0.2f, 0.2f}, {0.8f, 0.2f}, {0.2f, 0.8f}, {0.8f, 0.8f}};
  const std::vector<Float2> column{{0.5f, 0.2f}, {0.5f, 0.5f}, {0.5f, 0.8f}};
  struct Case {
    const char* what;
    std::vector<Vector3> hits;
    std::vector<Float2> image;
    bool fits;
  };
  for (const Case& k : std::vector<Case>{
           {"four hits that span the image",
            {along(corner[0], 2), along(corner[1], 3), along(corner[2], 4), along(corner[3], 2)},
            corner,
            true},
           {"three hits: nothing to check the fit against",
            {along(corner[0], 2), along(corner[1], 3), along(corner[2], 4)},
            {corner[0], corner[1], corner[2]},
            false},
           {"one column of the image",
            {along(column[0], 2), along(column[1], 2), along(column[2], 2)},
            column,
            false},
           {"a hit behind the camera",
            {along(corner[0], 2), along(corner[1], -3), along(corner[2], 4), along(corner[3], 2)},
            corner,
            false},
           {"hits nowhere near their rays",
            {along(corner[0], 2), along(corner[3], 3), along(corner[2], 4), along(corner[1], 2)},
            corner,
            false},
           {"fewer image points than hits",
            {along(corner[0], 2), along(corner[1], 3), along(corner[2], 4), along(corner[3], 2)},
            {corner[0], corner[1], corner[2]},
            false},
           {"a hit that is not a number",
            {along(corner[0], 2), {NAN, 0, 0}, along(corner[2], 4), along(corner[3], 2)},
            corner,
            false}}) {
    EXPECT_EQ(DetectionRays::fit(k.hits, k.image, pose).has_value(), k.fits) << k.what;
  }
}

TEST(ObjectCentreTest, DepthBehindTheVisibleFacesFollowsTheObjectsSize) {
  const ObjectSize couch = *typicalObjectSize("couch");
  const ObjectSize cup = *typicalObjectSize("cup");
  const ObjectSize book = *typicalObjectSize("book");
  struct Case {
    const char* what;
    const char* label;
    float width, elevation, want, tolerance;
  };
  for (const Case& k : std::vector<Case>{
           {"a couch from the front", "couch", couch.longSide, 0, couch.shortSide / 2, 1e-5f},
           {"a couch from its end", "couch", couch.shortSide, 0, couch.longSide / 2, 1e-5f},
           {"narrower than it can look", "couch", 0.1f, 0, couch.longSide / 2, 1e-5f},
           {"a cup: a quarter of pi times its radius", "cup", cup.longSide, 0,
            std::numbers::pi_v<float> / 8 * cup.longSide, 1e-5f},
           {"a book seen from straight above", "book", book.longSide, 90 * kDegree, 0, 1e-5f},
           {"a label of no known size", "airplane", 2, 0, Object3DTracker::kVisibleSurfaceDepth, 0},
           {"a width that is not a number", "couch", NAN, 0, Object3DTracker::kVisibleSurfaceDepth,
            0}}) {
    EXPECT_NEAR(Object3DTracker::depthBehindVisibleSurface(k.label, k.width, k.elevation), k.want,
                k.tolerance)
        << k.what;
  }
  // From above, the top reaches back towards the middle: the depth shrinks as the camera rises.
  float last = 1;
  for (float e : {0.f, 20.f, 40.f, 60.f, 80.f}) {
    const float d = Object3DTracker::depthBehindVisibleSurface("book", book.longSide, e * kDegree);
    EXPECT_LE(d, last) << e;
    last = d;
  }
  EXPECT_LT(last, book.shortSide / 4);
}

TEST(ObjectCentreTest, MiddleLandsOnTheObjectWhereverItIsSeenFrom) {
  struct Case {
    const char* what;
    const char* label;
    Box box;
    Pinhole camera;
    float tolerance;  // metres, horizontally
  };
  // Seen at an angle, a long object's near end fills more of the view than its far end: the box's
  // middle is not the object's, and the faces nearest the camera take the most hits.
  const Box couch{{0, 0.425f, -3}, 1.9f, 0.9f, 0.85f, 0};
  const Box chair{{0.5f, 0.45f, -2}, 0.5f, 0.5f, 0.9f, 25 * kDegree};
  for (const Case& k : std::vector<Case>{
           {"a couch head on", "couch", couch, {{0, 1.4f, 0}, 0, -15 * kDegree}, 0.03f},
           {"a couch from the side",
            "couch",
            couch,
            {{-2.5f, 1.4f, -2.8f}, -85 * kDegree, -15 * kDegree},
            0.15f},
           {"a couch at an angle",
            "couch",
            couch,
            {{-1.8f, 1.4f, -0.5f}, -35 * kDegree, -15 * kDegree},
            0.25f},
           {"a chair, turned",
            "chair",
            chair,
            {{0.2f, 1.5f, 0}, -5 * kDegree, -25 * kDegree},
            0.07f}}) {
    HitPoints hits = filmed(k.camera, k.box);
    const BoundingBox3D rectangle = hits.getBoundingRectangle(0.9);
    const BoundingBox3D placed =
        Object3DTracker::placeCentre(rectangle, hits, k.camera.worldFromCamera(), k.label);
    const Vector3 c = placed.center();
    const float miss = std::hypot(c.x - k.box.centre.x, c.z - k.box.centre.z);
    EXPECT_LT(miss, k.tolerance) << k.what;
    // The hit grid leans to one corner of the detection and a fixed depth fits no couch: the
    // median hit, pushed back by the default depth, lands more than twice as far off.
    const Vector3 plain =
        Object3DTracker::centreBehindVisibleSurface(rectangle, hits.usedPoints(), k.camera.position)
            .center();
    EXPECT_LT(2 * miss, std::hypot(plain.x - k.box.centre.x, plain.z - k.box.centre.z)) << k.what;
    EXPECT_FLOAT_EQ(placed.minY, rectangle.minY) << k.what;
  }
}

}  // namespace
}  // namespace omra
