// A furnished room in its own frame (origin at the floor's centre, y up); immutable once built, so
// one Room may be shared by any number of sessions and threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/sim_math.h"

namespace omra::sim {

// An object as a box turned by yaw about y. The table blocks sight only with its top slab.
struct SimObject {
  int id = 0;  // 1-based, stable for the room
  std::string className;
  int classIndex = 0;  // COCO label index
  Vec3 center;         // box centre, room frame
  Vec3 size;           // full extents along the object's own x, y, z
  double yaw = 0;
  bool slabOnly = false;  // only the top kSlabThickness of the box is solid (a table)

  static constexpr double kSlabThickness = 0.04;
};

enum class SurfaceKind { kFloor, kWall, kTableTop };

// A planar surface an AR platform can detect: floor, walls, table top.
struct PlaneSurface {
  int id = 0;
  SurfaceKind kind = SurfaceKind::kFloor;
  Vec3 center;  // room frame
  Vec3 normal;  // pointing into the room / up
  Vec3 axisU;   // in-plane axis; the other is normal x axisU
  double halfU = 0, halfV = 0;
  bool horizontal() const { return kind != SurfaceKind::kWall; }
  Vec3 axisV() const { return normal.cross(axisU); }
};

struct FeaturePoint {
  uint64_t id = 0;
  Vec3 position;       // room frame
  Vec3 normal;         // of the surface it lies on
  int objectId = 0;    // owning object, 0 when on a plane surface
  int surfaceId = -1;  // owning plane surface, -1 when on an object
};

struct RoomOptions {
  int minObjects = 10;  // the table included
  int maxObjects = 30;
  // A row of this many identical chairs (same size, same heading) on top of the rest; 0: none.
  int identicalRow = 0;
  // Fixed size (metres) instead of a seeded one; 0: seeded. Rooms of one flat share depth and
  // height.
  double width = 0, depth = 0, height = 0;
  // Doorways in the west (-x) and east (+x) walls at z = 0: furniture keeps the way clear.
  bool doorWest = false, doorEast = false;
};

// What changes in a room between two sessions.
struct RoomChanges {
  int moved = 0;    // objects shifted and turned elsewhere (with their feature points)
  int removed = 0;  // objects taken away
  int added = 0;    // new objects
};

struct RayHit {
  double distance = 0;
  Vec3 point;
  int objectId = 0;    // 0: the room's shell (floor, walls, ceiling)
  int surfaceId = -1;  // floor/wall surface id when the shell was hit (-1 for the ceiling)
  const SimObject* object = nullptr;  // the object hit, in the room cast against
};

class Room {
 public:
  double width = 6, depth = 5, height = 2.7;  // x, z, y extents
  // The free walkway around the centre: an ellipse with these semi-axes (x, z) at floor level.
  double walkA = 1, walkB = 1;
  std::vector<SimObject> objects;
  std::vector<PlaneSurface> surfaces;
  std::vector<FeaturePoint> points;

  // Nearest hit of the ray o + t d (d unit, t > minDistance) against the objects and the shell.
  RayHit castRay(const Vec3& o, const Vec3& d, double minDistance = 1e-4) const;
  // True when an object other than ignoreObjectId blocks the segment from -> to.
  bool occluded(const Vec3& from, const Vec3& to, int ignoreObjectId) const;
  const SimObject* object(int id) const;
  // The eight corners of an object's box, room frame.
  static std::vector<Vec3> corners(const SimObject& o);
};

// The room after the changes: counts beyond what is possible are capped. Object ids count up
// from 1 again; objects keep their order. Seeded; the table is never moved or removed.
Room rearrangeRoom(const Room& room, const RoomChanges& changes, uint64_t seed);

// Entry distance of the ray o + t d (t > tMin) into an object's solid, or +infinity.
double rayObjectDistance(const SimObject& object, const Vec3& o, const Vec3& d, double tMin);

// Outward normal of the face of an object's solid nearest to a point on it.
Vec3 objectNormalAt(const SimObject& object, const Vec3& point);

// A flat or an office floor: rooms of one depth in a row along x, doorways between them. The
// merged room holds every object, surface and point in the space's frame (interior walls are
// objects of class index 0, which no detector reports); cells hold each room in its own frame.
struct Space {
  Room merged;
  std::vector<Room> cells;
  std::vector<double> cellCenterX;  // cell k's frame is the space's shifted by this along x
  std::vector<int> cellOfObject;    // per merged object (index id - 1): its cell, -1 for walls
  std::vector<int> cellOfPoint;     // per merged point (index id - 1)
};
Space generateSpace(uint64_t seed, int rooms, const RoomOptions& options = {});

// A seeded room: size, a table against a wall, 10 to 30 objects of the detector's classes placed
// clear of each other and of the walkway, feature points on every surface.
Room generateRoom(uint64_t seed, const RoomOptions& options = {});

}  // namespace omra::sim
