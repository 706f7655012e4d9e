#include "sim/room.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>

#include "sim/object_classes.h"
#include "src/foundation/fatal.h"

namespace omra::sim {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kDoorHalfWidth = 0.45, kDoorHeight = 2.0, kWallThickness = 0.1;

struct SolidBox {
  Vec3 center;
  Vec3 half;
  double yaw;
};

SolidBox solidOf(const SimObject& o) {
  if (!o.slabOnly) return {o.center, o.size * 0.5, o.yaw};
  Vec3 c = o.center;
  c.y += o.size.y / 2 - SimObject::kSlabThickness / 2;
  return {c, {o.size.x / 2, SimObject::kSlabThickness / 2, o.size.z / 2}, o.yaw};
}

// Entry distance of the ray into the box, or +inf. Rays starting inside report their exit.
double intersectBox(const SolidBox& b, const Vec3& o, const Vec3& d, double tMin) {
  Mat3 inv = Mat3::rotY(-b.yaw);
  Vec3 lo = inv * (o - b.center);
  Vec3 ld = inv * d;
  double t0 = -kInf, t1 = kInf;
  const double os[3] = {lo.x, lo.y, lo.z}, ds[3] = {ld.x, ld.y, ld.z};
  const double hs[3] = {b.half.x, b.half.y, b.half.z};
  for (int i = 0; i < 3; ++i) {
    if (std::fabs(ds[i]) < 1e-12) {
      if (os[i] < -hs[i] || os[i] > hs[i]) return kInf;
      continue;
    }
    double a = (-hs[i] - os[i]) / ds[i], c = (hs[i] - os[i]) / ds[i];
    if (a > c) std::swap(a, c);
    t0 = std::max(t0, a);
    t1 = std::min(t1, c);
    if (t0 > t1) return kInf;
  }
  if (t0 > tMin) return t0;
  if (t1 > tMin) return t1;
  return kInf;
}

// A footprint rectangle in the x-z plane.
struct Footprint {
  double cx, cz, hx, hz, yaw;
  std::array<std::pair<double, double>, 4> corners() const {
    double c = std::cos(yaw), s = std::sin(yaw);
    std::array<std::pair<double, double>, 4> out;
    const double sx[4] = {-1, 1, 1, -1}, sz[4] = {-1, -1, 1, 1};
    for (int i = 0; i < 4; ++i) {
      double lx = sx[i] * hx, lz = sz[i] * hz;
      // Ry(yaw) applied to (lx, 0, lz).
      out[static_cast<size_t>(i)] = {cx + c * lx + s * lz, cz - s * lx + c * lz};
    }
    return out;
  }
};

Footprint footprintOf(const SimObject& o, double margin = 0) {
  return {o.center.x, o.center.z, o.size.x / 2 + margin, o.size.z / 2 + margin, o.yaw};
}

// Separating-axis test of two rectangles.
bool overlaps(const Footprint& a, const Footprint& b) {
  auto ca = a.corners(), cb = b.corners();
  for (const Footprint* f : {&a, &b}) {
    double c = std::cos(f->yaw), s = std::sin(f->yaw);
    const std::pair<double, double> axes[2] = {{c, -s}, {s, c}};
    for (auto [ax, az] : axes) {
      double amin = kInf, amax = -kInf, bmin = kInf, bmax = -kInf;
      for (auto [x, z] : ca) {
        amin = std::min(amin, x * ax + z * az);
        amax = std::max(amax, x * ax + z * az);
      }
      for (auto [x, z] : cb) {
        bmin = std::min(bmin, x * ax + z * az);
        bmax = std::max(bmax, x * ax + z * az);
      }
      if (amax < bmin || bmax < amin) return false;
    }
  }
  return true;
}

bool overlaps3d(const SimObject& a, const SimObject& b, double margin) {
  double a0 = a.center.y - a.size.y / 2, a1 = a.center.y + a.size.y / 2;
  double b0 = b.center.y - b.size.y / 2, b1 = b.center.y + b.size.y / 2;
  if (a1 <= b0 || b1 <= a0) return false;  // one stands on the other
  return overlaps(footprintOf(a, margin), footprintOf(b, 0));
}

class Builder {
 public:
  Builder(uint64_t seed, const RoomOptions& options) : rng_(seed), options_(options) {}
  // Changes to a room already built.
  Builder(uint64_t seed, const Room& room) : rng_(seed), room_(room) {}

  Room build() {
    room_.width = uniform(5.0, 7.5);
    room_.depth = uniform(4.5, 6.5);
    room_.height = uniform(2.5, 2.9);
    if (options_.width > 0) room_.width = options_.width;
    if (options_.depth > 0) room_.depth = options_.depth;
    if (options_.height > 0) room_.height = options_.height;
    room_.walkA = 0.17 * room_.width;
    room_.walkB = 0.17 * room_.depth;
    addShell();
    int minCount = std::clamp(options_.minObjects, 1, 60);
    int maxCount = std::clamp(options_.maxObjects, minCount, 60);
    int target = std::uniform_int_distribution<int>(minCount, maxCount)(rng_);
    placeTable();
    if (options_.identicalRow > 0) placeRow(options_.identicalRow);
    auto classes = furnitureClasses();
    int attempts = 0;
    while (static_cast<int>(room_.objects.size()) < target && attempts++ < 400) {
      const ObjectClass& cls =
          classes[std::uniform_int_distribution<size_t>(0, classes.size() - 1)(rng_)];
      place(cls);
    }
    addTableSurface();
    for (const SimObject& o : room_.objects) addObjectPoints(o);
    for (const PlaneSurface& s : room_.surfaces) {
      if (s.kind != SurfaceKind::kTableTop) addSurfacePoints(s);
    }
    // Sessions build their point identifiers on top of these (see the session simulator).
    OMRA_CHECK(room_.points.size() < 100'000, "simulated room holds too many feature points");
    for (size_t i = 0; i < room_.points.size(); ++i) room_.points[i].id = i + 1;
    return std::move(room_);
  }

 private:
  double uniform(double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng_); }

  void addShell() {
    double w = room_.width, d = room_.depth, h = room_.height;
    room_.surfaces.push_back(
        {0, SurfaceKind::kFloor, {0, 0, 0}, {0, 1, 0}, {1, 0, 0}, w / 2, d / 2});
    const Vec3 up{0, 1, 0};
    const std::array<std::pair<Vec3, double>, 4> walls{
        {{{1, 0, 0}, d / 2}, {{-1, 0, 0}, d / 2}, {{0, 0, 1}, w / 2}, {{0, 0, -1}, w / 2}}};
    for (const auto& [n, halfLen] : walls) {
      Vec3 c{-n.x * w / 2, h / 2, -n.z * d / 2};
      room_.surfaces.push_back({static_cast<int>(room_.surfaces.size()), SurfaceKind::kWall, c, n,
                                up.cross(n), halfLen, h / 2});
    }
  }

  // A point on wall `wall` (1..4) at distance `along` from its centre, `out` metres into the room.
  Vec3 wallPoint(int wall, double along, double out) const {
    const PlaneSurface& s = room_.surfaces[static_cast<size_t>(wall)];
    return Vec3{s.center.x, 0, s.center.z} + s.axisU * along + s.normal * out;
  }

  bool insideRoom(const Footprint& f) const {
    for (auto [x, z] : f.corners()) {
      if (std::fabs(x) > room_.width / 2 - 0.01 || std::fabs(z) > room_.depth / 2 - 0.01) {
        return false;
      }
    }
    return true;
  }

  bool clearOfWalkway(const Footprint& f) const {
    constexpr double kMargin = 0.6;
    double a = room_.walkA + kMargin, b = room_.walkB + kMargin;
    auto cs = f.corners();
    for (size_t i = 0; i < 4; ++i) {
      auto [x0, z0] = cs[i];
      auto [x1, z1] = cs[(i + 1) % 4];
      for (int k = 0; k <= 6; ++k) {
        double x = x0 + (x1 - x0) * k / 6, z = z0 + (z1 - z0) * k / 6;
        if ((x * x) / (a * a) + (z * z) / (b * b) < 1) return false;
      }
    }
    return (f.cx * f.cx) / (a * a) + (f.cz * f.cz) / (b * b) >= 1;
  }

  // The way from the walkway to a doorway stays free (wall hangings beside it are fine).
  bool clearOfDoorways(const Footprint& f, bool hangs) const {
    if (!options_.doorWest && !options_.doorEast) return true;
    constexpr double kHalfWay = 0.75;
    double zMin = kInf, zMax = -kInf, xMin = kInf, xMax = -kInf;
    for (auto [x, z] : f.corners()) {
      zMin = std::min(zMin, z), zMax = std::max(zMax, z);
      xMin = std::min(xMin, x), xMax = std::max(xMax, x);
    }
    if (zMax < -kHalfWay || zMin > kHalfWay) return true;
    if (hangs) return false;
    return !((options_.doorWest && xMin < 0) || (options_.doorEast && xMax > 0));
  }

  bool fits(const SimObject& o, bool checkWalkway) const {
    Footprint f = footprintOf(o);
    if (!insideRoom(f) || (checkWalkway && !clearOfWalkway(f))) return false;
    const ObjectClass* cls = findClass(o.className);
    const bool onTable = cls && cls->placement == Placement::kTableTop;
    if (!onTable && !clearOfDoorways(f, cls && cls->placement == Placement::kWall)) return false;
    for (const SimObject& other : room_.objects) {
      if (overlaps3d(o, other, 0.08)) return false;
    }
    return true;
  }

  SimObject makeObject(const ObjectClass& cls) {
    double scale = uniform(0.85, 1.15);
    SimObject o;
    o.className = std::string(cls.name);
    o.classIndex = cls.index;
    o.size = {cls.width * scale, cls.height * scale, cls.depth * scale};
    return o;
  }

  // Yaw that turns the object's +z (its front) to the wall's normal.
  static double yawFacing(const Vec3& n) { return std::atan2(n.x, n.z); }

  void placeTable() {
    const ObjectClass& cls = tableClass();
    for (int attempt = 0; attempt < 200; ++attempt) {
      SimObject o = makeObject(cls);
      o.size.y = cls.height * uniform(0.97, 1.03);
      o.slabOnly = true;
      int wall = std::uniform_int_distribution<int>(1, 4)(rng_);
      const PlaneSurface& s = room_.surfaces[static_cast<size_t>(wall)];
      double room = s.halfU - o.size.x / 2 - 0.1;
      if (room <= 0) continue;
      Vec3 p = wallPoint(wall, uniform(-room, room), o.size.z / 2 + 0.05);
      o.center = {p.x, o.size.y / 2, p.z};
      o.yaw = yawFacing(s.normal);
      if (fits(o, true)) {
        add(std::move(o));
        return;
      }
    }
  }

  // A row of identical chairs along one wall, facing into the room.
  void placeRow(int count) {
    const ObjectClass* chair = findClass("chair");
    if (!chair) return;
    SimObject model = makeObject(*chair);
    constexpr double kSpacing = 0.7;
    for (int attempt = 0; attempt < 60; ++attempt) {
      int wall = std::uniform_int_distribution<int>(1, 4)(rng_);
      const PlaneSurface& s = room_.surfaces[static_cast<size_t>(wall)];
      double length = (count - 1) * kSpacing;
      double room = s.halfU - length / 2 - model.size.x / 2 - 0.05;
      if (room <= 0) continue;
      double first = uniform(-room, room) - length / 2;
      std::vector<SimObject> row;
      for (int i = 0; i < count; ++i) {
        SimObject o = model;
        Vec3 p = wallPoint(wall, first + i * kSpacing, o.size.z / 2 + 0.15);
        o.center = {p.x, o.size.y / 2, p.z};
        o.yaw = yawFacing(s.normal);
        if (!fits(o, true)) break;
        row.push_back(o);
        add(std::move(o));
      }
      if (static_cast<int>(row.size()) == count) return;
      room_.objects.resize(room_.objects.size() - row.size());
    }
  }

  // A new spot for an object of the room (its size kept); false when none was found.
  bool relocate(size_t index) {
    SimObject old = room_.objects[index];
    const ObjectClass* cls = findClass(old.className);
    if (!cls || old.slabOnly) return false;
    room_.objects.erase(room_.objects.begin() + static_cast<std::ptrdiff_t>(index));
    for (int attempt = 0; attempt < 30; ++attempt) {
      size_t before = room_.objects.size();
      place(*cls, &old);
      if (room_.objects.size() == before) break;
      SimObject moved = room_.objects.back();
      room_.objects.pop_back();
      if ((moved.center - old.center).norm() < 0.5) continue;
      Mat3 back = Mat3::rotY(-old.yaw), forth = Mat3::rotY(moved.yaw);
      for (FeaturePoint& p : room_.points) {
        if (p.objectId != old.id) continue;
        p.position = moved.center + forth * (back * (p.position - old.center));
        p.normal = forth * (back * p.normal);
        p.surfaceId = -1;
      }
      moved.id = old.id;
      room_.objects.insert(room_.objects.begin() + static_cast<std::ptrdiff_t>(index), moved);
      return true;
    }
    room_.objects.insert(room_.objects.begin() + static_cast<std::ptrdiff_t>(index), old);
    return false;
  }

 public:
  Room change(const RoomChanges& changes) {
    auto pick = [&](auto accept) -> std::vector<size_t> {
      std::vector<size_t> out;
      for (size_t i = 0; i < room_.objects.size(); ++i) {
        if (accept(room_.objects[i])) out.push_back(i);
      }
      std::shuffle(out.begin(), out.end(), rng_);
      return out;
    };
    auto movable = [](const SimObject& o) { return !o.slabOnly && o.classIndex > 0; };
    int moved = 0;
    for (size_t i : pick(movable)) {
      if (moved >= changes.moved) break;
      if (relocate(i)) ++moved;
    }
    std::vector<size_t> gone = pick(movable);
    gone.resize(std::min(gone.size(), static_cast<size_t>(std::max(changes.removed, 0))));
    std::vector<bool> removed(room_.objects.size() + 1, false);
    for (size_t i : gone) removed[static_cast<size_t>(room_.objects[i].id)] = true;
    auto classes = furnitureClasses();
    std::vector<SimObject> kept;
    std::vector<int> newId(room_.objects.size() + 1, 0);
    for (const SimObject& o : room_.objects) {
      if (removed[static_cast<size_t>(o.id)]) continue;
      newId[static_cast<size_t>(o.id)] = static_cast<int>(kept.size()) + 1;
      kept.push_back(o);
      kept.back().id = static_cast<int>(kept.size());
    }
    std::erase_if(room_.points, [&](const FeaturePoint& p) {
      return p.objectId > 0 && removed[static_cast<size_t>(p.objectId)];
    });
    for (FeaturePoint& p : room_.points) {
      if (p.objectId > 0) p.objectId = newId[static_cast<size_t>(p.objectId)];
    }
    room_.objects = std::move(kept);
    uint64_t nextPoint = 1;
    for (const FeaturePoint& p : room_.points) nextPoint = std::max(nextPoint, p.id + 1);
    for (int added = 0, attempts = 0; added < changes.added && attempts < 200; ++attempts) {
      size_t before = room_.objects.size();
      place(classes[std::uniform_int_distribution<size_t>(0, classes.size() - 1)(rng_)]);
      if (room_.objects.size() == before) continue;
      ++added;
      size_t first = room_.points.size();
      addObjectPoints(room_.objects.back());
      for (size_t i = first; i < room_.points.size(); ++i) room_.points[i].id = nextPoint++;
    }
    OMRA_CHECK(nextPoint < 100'000, "simulated room holds too many feature points");
    return std::move(room_);
  }

 private:
  // keep: an object to put elsewhere with its size, instead of a new one.
  void place(const ObjectClass& cls, const SimObject* keep = nullptr) {
    for (int attempt = 0; attempt < 40; ++attempt) {
      SimObject o = makeObject(cls);
      if (keep) o = *keep;
      bool walkway = true;
      switch (cls.placement) {
        case Placement::kFloorAgainstWall:
        case Placement::kWall: {
          int wall = std::uniform_int_distribution<int>(1, 4)(rng_);
          const PlaneSurface& s = room_.surfaces[static_cast<size_t>(wall)];
          double room = s.halfU - o.size.x / 2 - 0.05;
          if (room <= 0) continue;
          bool onWall = cls.placement == Placement::kWall;
          Vec3 p = wallPoint(wall, uniform(-room, room), o.size.z / 2 + (onWall ? 0.005 : 0.04));
          double y = onWall ? cls.mountHeight + uniform(-0.1, 0.1) : o.size.y / 2;
          o.center = {p.x, y, p.z};
          o.yaw = yawFacing(s.normal);
          walkway = !onWall;
          break;
        }
        case Placement::kFloor: {
          double x = uniform(-room_.width / 2, room_.width / 2);
          double z = uniform(-room_.depth / 2, room_.depth / 2);
          o.center = {x, o.size.y / 2, z};
          o.yaw = std::atan2(-x, -z) + uniform(-0.6, 0.6);  // roughly facing the room's centre
          break;
        }
        case Placement::kTableTop: {
          if (room_.objects.empty() || room_.objects[0].className != tableClass().name) return;
          const SimObject& t = room_.objects[0];
          double hx = t.size.x / 2 - 0.5 * std::max(o.size.x, o.size.z) - 0.03;
          double hz = t.size.z / 2 - 0.5 * std::max(o.size.x, o.size.z) - 0.03;
          if (hx <= 0 || hz <= 0) return;
          Vec3 local{uniform(-hx, hx), 0, uniform(-hz, hz)};
          Vec3 p = t.center + Mat3::rotY(t.yaw) * local;
          o.center = {p.x, t.size.y + o.size.y / 2 + 0.001, p.z};
          o.yaw = t.yaw + uniform(-0.5, 0.5);
          walkway = false;
          break;
        }
      }
      if (fits(o, walkway)) {
        add(std::move(o));
        return;
      }
    }
  }

  void add(SimObject o) {
    o.id = static_cast<int>(room_.objects.size()) + 1;
    room_.objects.push_back(std::move(o));
  }

  void addTableSurface() {
    if (room_.objects.empty() || !room_.objects[0].slabOnly) return;
    const SimObject& t = room_.objects[0];
    Vec3 u = Mat3::rotY(t.yaw) * Vec3{1, 0, 0};
    room_.surfaces.push_back({static_cast<int>(room_.surfaces.size()),
                              SurfaceKind::kTableTop,
                              Vec3{t.center.x, t.size.y, t.center.z},
                              {0, 1, 0},
                              u,
                              t.size.x / 2,
                              t.size.z / 2});
  }

  // Exactly on the surface: the kit's hit tests then land where the objects are.
  void addPoint(const Vec3& p, const Vec3& n, int objectId, int surfaceId) {
    room_.points.push_back({0, p, n, objectId, surfaceId});
  }

  // Points on the faces of an object's box that can be seen: sides and top (not the bottom; not
  // the back of something hanging on a wall).
  void addObjectPoints(const SimObject& o) {
    constexpr double kDensity = 110;  // per square metre: objects are textured
    const ObjectClass* cls = findClass(o.className);
    bool hangs = cls && cls->placement == Placement::kWall;
    Mat3 r = Mat3::rotY(o.yaw);
    Vec3 h = o.size * 0.5;
    double y0 = o.slabOnly ? o.size.y - SimObject::kSlabThickness : 0;  // local height from bottom
    struct Face {
      Vec3 n, u, v;
      double hu, hv;
      Vec3 c;
    };
    double sideH = (o.size.y - y0) / 2;
    double sideY = -h.y + y0 + sideH;
    std::vector<Face> faces = {
        {{0, 1, 0}, {1, 0, 0}, {0, 0, 1}, h.x, h.z, {0, h.y, 0}},
        {{1, 0, 0}, {0, 0, 1}, {0, 1, 0}, h.z, sideH, {h.x, sideY, 0}},
        {{-1, 0, 0}, {0, 0, 1}, {0, 1, 0}, h.z, sideH, {-h.x, sideY, 0}},
        {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}, h.x, sideH, {0, sideY, h.z}},
    };
    if (!hangs) faces.push_back({{0, 0, -1}, {1, 0, 0}, {0, 1, 0}, h.x, sideH, {0, sideY, -h.z}});
    double total = 0;
    for (const Face& f : faces) total += 4 * f.hu * f.hv;
    double count = std::clamp(total * kDensity, 30.0, 260.0);
    int tableSurface = o.slabOnly ? static_cast<int>(room_.surfaces.size()) - 1 : -1;
    for (const Face& f : faces) {
      int n = static_cast<int>(std::lround(count * 4 * f.hu * f.hv / total));
      for (int i = 0; i < n; ++i) {
        Vec3 local = f.c + f.u * uniform(-f.hu, f.hu) + f.v * uniform(-f.hv, f.hv);
        bool top = f.n.y > 0.5;
        addPoint(o.center + r * local, r * f.n, o.id, top ? tableSurface : -1);
      }
    }
  }

  void addSurfacePoints(const PlaneSurface& s) {
    double density = s.kind == SurfaceKind::kFloor ? 12 : 9;
    int n = static_cast<int>(std::lround(4 * s.halfU * s.halfV * density));
    const bool door = s.kind == SurfaceKind::kWall && std::fabs(s.normal.x) > 0.5 &&
                      (s.normal.x > 0 ? options_.doorWest : options_.doorEast);
    for (int i = 0; i < n; ++i) {
      Vec3 p =
          s.center + s.axisU * uniform(-s.halfU, s.halfU) + s.axisV() * uniform(-s.halfV, s.halfV);
      if (door && std::fabs(p.z) < kDoorHalfWidth && p.y < kDoorHeight) continue;
      addPoint(p, s.normal, 0, s.id);
    }
  }

  std::mt19937_64 rng_;
  RoomOptions options_;
  Room room_;
};

// Whether the ray o + t d (t in [0, length]) passes the object's bounding sphere: a cheap test
// that never rules out a real hit.
bool nearRay(const SimObject& obj, const Vec3& o, const Vec3& d, double length) {
  const double r = 0.5 * obj.size.norm() + 1e-6;
  const Vec3 v = obj.center - o;
  const double along = v.dot(d);
  if (along < -r || along > length + r) return false;
  return v.dot(v) - along * along <= r * r;
}

}  // namespace

RayHit Room::castRay(const Vec3& o, const Vec3& d, double minDistance) const {
  RayHit best;
  best.distance = kInf;
  for (const SimObject& obj : objects) {
    if (!nearRay(obj, o, d, kInf)) continue;
    double t = intersectBox(solidOf(obj), o, d, minDistance);
    if (t < best.distance) {
      best.distance = t;
      best.objectId = obj.id;
      best.object = &obj;
    }
  }
  // The shell, seen from inside: the nearest positive exit through the six faces.
  const double os[3] = {o.x, o.y, o.z}, ds[3] = {d.x, d.y, d.z};
  const double lo[3] = {-width / 2, 0, -depth / 2}, hi[3] = {width / 2, height, depth / 2};
  for (int i = 0; i < 3; ++i) {
    if (std::fabs(ds[i]) < 1e-12) continue;
    double t = ((ds[i] > 0 ? hi[i] : lo[i]) - os[i]) / ds[i];
    if (t > minDistance && t < best.distance) {
      best.distance = t;
      best.objectId = 0;
      best.object = nullptr;
      if (i == 1) {
        best.surfaceId = ds[i] < 0 ? 0 : -1;
      } else if (i == 0) {
        best.surfaceId = ds[i] < 0 ? 1 : 2;
      } else {
        best.surfaceId = ds[i] < 0 ? 3 : 4;
      }
    }
  }
  if (best.objectId != 0) best.surfaceId = -1;
  best.point = o + d * best.distance;
  return best;
}

bool Room::occluded(const Vec3& from, const Vec3& to, int ignoreObjectId) const {
  Vec3 delta = to - from;
  double len = delta.norm();
  if (len <= 0) return false;
  Vec3 d = delta * (1.0 / len);
  for (const SimObject& obj : objects) {
    if (obj.id == ignoreObjectId || !nearRay(obj, from, d, len)) continue;
    if (intersectBox(solidOf(obj), from, d, 1e-4) < len - 1e-3) return true;
  }
  return false;
}

const SimObject* Room::object(int id) const {
  if (id < 1 || id > static_cast<int>(objects.size())) return nullptr;
  return &objects[static_cast<size_t>(id - 1)];
}

std::vector<Vec3> Room::corners(const SimObject& o) {
  std::vector<Vec3> out;
  Mat3 r = Mat3::rotY(o.yaw);
  for (int i = 0; i < 8; ++i) {
    Vec3 local{(i & 1 ? 0.5 : -0.5) * o.size.x, (i & 2 ? 0.5 : -0.5) * o.size.y,
               (i & 4 ? 0.5 : -0.5) * o.size.z};
    out.push_back(o.center + r * local);
  }
  return out;
}

Room generateRoom(uint64_t seed, const RoomOptions& options) {
  return Builder(seed, options).build();
}

Room rearrangeRoom(const Room& room, const RoomChanges& changes, uint64_t seed) {
  return Builder(seed, room).change(changes);
}

double rayObjectDistance(const SimObject& object, const Vec3& o, const Vec3& d, double tMin) {
  return intersectBox(solidOf(object), o, d, tMin);
}

Vec3 objectNormalAt(const SimObject& object, const Vec3& point) {
  const SolidBox b = solidOf(object);
  const Vec3 local = Mat3::rotY(-b.yaw) * (point - b.center);
  const double r[3] = {std::fabs(local.x) / b.half.x, std::fabs(local.y) / b.half.y,
                       std::fabs(local.z) / b.half.z};
  Vec3 n;
  if (r[0] >= r[1] && r[0] >= r[2]) {
    n.x = local.x < 0 ? -1 : 1;
  } else if (r[1] >= r[2]) {
    n.y = local.y < 0 ? -1 : 1;
  } else {
    n.z = local.z < 0 ? -1 : 1;
  }
  return Mat3::rotY(b.yaw) * n;
}

Space generateSpace(uint64_t seed, int rooms, const RoomOptions& options) {
  rooms = std::clamp(rooms, 1, 12);
  std::mt19937_64 rng(seed ^ 0x0ff1ce5ULL);
  RoomOptions cellOptions = options;
  if (cellOptions.depth <= 0) cellOptions.depth = std::uniform_real_distribution(4.5, 6.5)(rng);
  if (cellOptions.height <= 0) cellOptions.height = std::uniform_real_distribution(2.5, 2.9)(rng);
  Space space;
  double total = 0;
  for (int k = 0; k < rooms; ++k) {
    RoomOptions o = cellOptions;
    o.doorWest = k > 0;
    o.doorEast = k + 1 < rooms;
    space.cells.push_back(generateRoom(rng(), o));
    total += space.cells.back().width + (k > 0 ? kWallThickness : 0);
  }
  Room& m = space.merged;
  m.width = total;
  m.depth = cellOptions.depth;
  m.height = cellOptions.height;
  m.walkA = space.cells[0].walkA;
  m.walkB = space.cells[0].walkB;
  double west = -total / 2;
  for (int k = 0; k < rooms; ++k) {
    const Room& cell = space.cells[static_cast<size_t>(k)];
    const double cx = west + cell.width / 2;
    space.cellCenterX.push_back(cx);
    const Vec3 shift{cx, 0, 0};
    const int objectBase = static_cast<int>(m.objects.size());
    const int surfaceBase = static_cast<int>(m.surfaces.size());
    for (SimObject o : cell.objects) {
      o.id += objectBase;
      o.center = o.center + shift;
      m.objects.push_back(std::move(o));
      space.cellOfObject.push_back(k);
    }
    for (PlaneSurface s : cell.surfaces) {
      s.id += surfaceBase;
      s.center = s.center + shift;
      m.surfaces.push_back(s);
    }
    for (FeaturePoint p : cell.points) {
      p.position = p.position + shift;
      if (p.objectId > 0) p.objectId += objectBase;
      if (p.surfaceId >= 0) p.surfaceId += surfaceBase;
      p.id = m.points.size() + 1;
      m.points.push_back(p);
      space.cellOfPoint.push_back(k);
    }
    west += cell.width + kWallThickness;
    if (k + 1 == rooms) break;
    // The wall to the next room, with a doorway at z = 0.
    const double wx = west - kWallThickness / 2, d = m.depth, h = m.height;
    const double side = d / 2 - kDoorHalfWidth;
    const Vec3 parts[3][2] = {
        {{wx, h / 2, -d / 2 + side / 2}, {kWallThickness, h, side}},
        {{wx, h / 2, d / 2 - side / 2}, {kWallThickness, h, side}},
        {{wx, (kDoorHeight + h) / 2, 0}, {kWallThickness, h - kDoorHeight, 2 * kDoorHalfWidth}}};
    for (const auto& [center, size] : parts) {
      SimObject wall;
      wall.id = static_cast<int>(m.objects.size()) + 1;
      wall.className = "wall";
      wall.center = center;
      wall.size = size;
      m.objects.push_back(std::move(wall));
      space.cellOfObject.push_back(-1);
    }
  }
  OMRA_CHECK(m.points.size() < 100'000, "simulated space holds too many feature points");
  return space;
}

}  // namespace omra::sim
