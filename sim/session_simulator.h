// Simulates one AR session in a room: the camera path, the frames with their feature points, the
// plane anchors as they come into view, and what the detector sees. Deterministic in its inputs;
// the function holds no state between calls and is safe to call from several threads at once.
#pragma once

#include <cstdint>
#include <string>

#include "sim/camera_model.h"
#include "sim/frame_image.h"
#include "sim/recording.h"
#include "sim/room.h"
#include "sim/scan_path.h"

namespace omra::sim {

struct DetectorNoise {
  double missRate = 0.1;            // chance that a well-visible object goes unreported in a frame
  double boxJitter = 0.02;          // std. dev. of each box edge, as a fraction of the box's side
  double scoreJitter = 0.05;        // std. dev. of the score
  double falsePositiveRate = 0.05;  // chance per frame of one box where there is nothing
};

// How far the platform's plane estimates are off: each plane keeps one error for its lifetime (a
// bias, which is harder on a localizer than jitter that averages out). Horizontal planes stay
// gravity-aligned, as the platform reports them; vertical planes stay vertical.
struct PlaneNoise {
  double offsetSigma = 0.01;         // metres, along the normal
  double headingSigmaDegrees = 0.5;  // rotation about the vertical
};

// How visual-inertial tracking drifts: the reported camera (and with it every point and plane
// reported afterwards) wanders off the truth, in position with the distance walked and in yaw
// with time. Zero: the tracked pose is the true one.
struct TrackingDrift {
  double positionPerMetre = 0;  // metres of error per metre walked, in a slowly turning direction
  double yawDegreesPerMinute = 0;  // steady heading drift (its sign is seeded)
};

// How far reported feature points are off their surfaces: depth error along the viewing ray
// (std. dev. depthSigma at 1 m, growing with the square of the distance) and outliers (depth off
// by a factor of 0.4 to 1.8).
struct PointNoise {
  double depthSigma = 0;
  double outlierRate = 0;
};

struct SessionOptions {
  std::string role = "mapping";
  uint64_t seed = 1;  // the path, the session's origin, noise
  double seconds = 30;
  double fps = 60;
  CameraModel camera;
  DetectorNoise noise;
  PlaneNoise planeNoise;
  int maxPointsPerFrame = 600;
  double maxPointDistance = 6.0;  // metres: farther surface points are not tracked
  PathShape path;
  TrackingDrift drift;
  PointNoise pointNoise;
  // Someone walks round the room through the camera's view (rooms of one cell only).
  bool personWalking = false;
  // The detector's activation from the rendered view of the camera under this light, rather
  // than the room-frame descriptor.
  bool descriptorFromImage = false;
  Lighting lighting;
};

// The box of the person walking through at time t (room frame).
SimObject walkingPerson(const Room& room, uint64_t sessionSeed, double t);

// The session's world origin sits where its first camera stood, gravity-aligned, with -z along
// that camera's heading, as an AR platform starts one; the truth records session_from_room.
Recording simulateSession(const Room& room, uint64_t sceneSeed, const SessionOptions& options);

// One session walking through a space of several rooms (its truth: session_from_space and the
// merged room; the scenario narrows it to one room).
Recording simulateSpaceSession(const Space& space, uint64_t sceneSeed,
                               const SessionOptions& options);

// The origin a session with these options gets (session_from_room), without running it.
YawTransform sessionOrigin(const Room& room, const SessionOptions& options);

}  // namespace omra::sim
