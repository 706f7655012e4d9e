// Decides from a short window of camera (or object) positions whether something moves. Owned by one
// thread (the frame thread, or the tracker's); not thread-safe.
#pragma once

#include <vector>

#include "omrakit/ar_types.h"
#include "omrakit/vector3.h"
#include "src/foundation/orientation.h"

namespace omra {

class MotionAnalyzer {
 public:
  static constexpr float kCameraThreshold = 0.001f;  // per frame, metres or radians

  std::vector<Vector3> pastPositions;  // oldest first, at most 4
  std::vector<Vector3> pastAngles;     // oldest first, at most 4
  float transVel = 0;
  float rotVel = 0;
  bool isMoving = false;

  // Updates the windows with the frame's camera position and Euler angles; true when the mean
  // translation or rotation step exceeds 0.001. False for the first four frames.
  bool isCameraMoving(const ArFrame& frame);
  // The same test over positions only (a tracked object's centre), with its own threshold.
  bool isPositionMoving(const Vector3& position, float threshold);

  // Appends sample; once the history holds 5, drops the oldest and returns the sum of the three
  // adjacent steps divided by 4 (kept so: the divisor is 4). Zero before that.
  static Vector3 calculateVelocity(const Vector3& sample, std::vector<Vector3>& pastValues);
};

// The pipeline's orientation from the camera roll (radians); the asymmetric bounds are deliberate.
phoneOrientation orientationFromRoll(float roll);

}  // namespace omra
