#include "src/scene/motion_analyzer.h"

namespace omra {

Vector3 MotionAnalyzer::calculateVelocity(const Vector3& sample, std::vector<Vector3>& past) {
  past.push_back(sample);
  if (past.size() <= 4) return {};
  past.erase(past.begin());
  Vector3 sum;
  for (size_t i = 0; i + 1 < past.size(); ++i) sum += past[i + 1] - past[i];
  return sum / 4.0f;
}

bool MotionAnalyzer::isCameraMoving(const ArFrame& frame) {
  const Vector3 vt =
      calculateVelocity(Vector3(frame.camera.transform.translation()), pastPositions);
  const Vector3 vr = calculateVelocity(Vector3(frame.camera.eulerAngles), pastAngles);
  transVel = vt.length();
  rotVel = vr.length();
  isMoving = transVel > kCameraThreshold || rotVel > kCameraThreshold;
  return isMoving;
}

bool MotionAnalyzer::isPositionMoving(const Vector3& position, float threshold) {
  transVel = calculateVelocity(position, pastPositions).length();
  isMoving = transVel > threshold;
  return isMoving;
}

phoneOrientation orientationFromRoll(float z) {
  constexpr float kHalfPi = 1.5707963f, kQuarterPi = 0.78539813f, kThreeQuarterPi = 2.3561945f;
  if (z > -kQuarterPi && z <= kHalfPi) return phoneOrientation::landscapeLeft;
  if (z < -kThreeQuarterPi) return phoneOrientation::landscapeRight;
  if (z > kHalfPi) return phoneOrientation::landscapeRight;
  return phoneOrientation::portrait;
}

}  // namespace omra
