// A handheld scan of a room: a person walks a loop around the room's walkway, looking outwards
// and sweeping left and right, the phone held in landscape with some pitch and roll jitter. Value
// type; pose() is a pure function of time, so it is safe to call from any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/room.h"

namespace omra::sim {

struct CameraPose {
  Mat3 rotation;  // world_from_camera
  Vec3 position;
  double pitch = 0, yaw = 0, roll = 0;
};

// One room of a walk through several: the loop's centre along x and its semi-axes.
struct PathCell {
  double centerX = 0;
  double walkA = 1, walkB = 1;
};

// Where the walk goes. The defaults are the full loop every session walked so far.
struct PathShape {
  double radiusScale = 0.85;  // of the room's walkway
  double height = 1.45;       // metres, the phone above the floor
  // Below 1: back and forth along this fraction of the loop instead of going round.
  double arcFraction = 1;
  bool randomStart = true;  // false: start at startAngle
  double startAngle = 0;
  // Not empty: a walk through these rooms in order (1.5 loops each, through the doorways at
  // z = 0 between them); the room's own walkway is then ignored.
  std::vector<PathCell> cells;
};

class ScanPath {
 public:
  // Phases, direction and jitter come from seed; the loop follows the room's walkway.
  ScanPath(const Room& room, uint64_t seed, const PathShape& shape = {});
  // Pose in the room frame at time t seconds.
  CameraPose pose(double t) const;
  // Seconds a walk through several rooms takes to the end of the last room's loop; 0 for a loop.
  double routeSeconds() const;

 private:
  // Position on the walk and the direction it looks out to, before the jitter.
  void base(double t, Vec3* position, double* outward) const;

  double a_ = 1, b_ = 1;  // loop semi-axes
  double omega_ = 0.4;    // rad/s around the loop
  double start_ = 0;      // loop angle at t = 0
  double phases_[12] = {};
  double sweep_ = 0.9;  // amplitude of the look-around, radians
  PathShape shape_;
  double speed_ = 0.35;
};

}  // namespace omra::sim
