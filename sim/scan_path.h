// A handheld scan of a room: a person walks a loop around the room's walkway, looking outwards
// and sweeping left and right, the phone held in landscape with some pitch and roll jitter. Value
// type; pose() is a pure function of time, so it is safe to call from any thread.
#pragma once

#include <cstdint>

#include "sim/room.h"

namespace omra::sim {

struct CameraPose {
  Mat3 rotation;  // world_from_camera
  Vec3 position;
  double pitch = 0, yaw = 0, roll = 0;
};

class ScanPath {
 public:
  // Phases, direction and jitter come from seed; the loop follows the room's walkway.
  ScanPath(const Room& room, uint64_t seed);
  // Pose in the room frame at time t seconds.
  CameraPose pose(double t) const;

 private:
  double a_ = 1, b_ = 1;  // loop semi-axes
  double omega_ = 0.4;    // rad/s around the loop
  double start_ = 0;      // loop angle at t = 0
  double phases_[12] = {};
  double sweep_ = 0.9;  // amplitude of the look-around, radians
};

}  // namespace omra::sim
