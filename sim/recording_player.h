// Turns a Recording back into what a host hands the kit: ArFrames (with their hit tests and
// images) and plane anchors. Holds the recording by shared pointer and never changes it, so it is
// safe to use from several threads; the frames it makes keep the recording alive.
#pragma once

#include <memory>

#include "omrakit/ar_types.h"
#include "sim/camera_model.h"
#include "sim/recording.h"

namespace omra::sim {

// Hit tests of one frame against its raw feature points: the points within a narrow cone around
// the ray through the image point, nearest first. Immutable; thread-safe.
class FeaturePointHitTester {
 public:
  static constexpr double kConeDegrees = 2.0;
  static constexpr double kMinRadius = 0.01;  // metres, for points very near the camera

  FeaturePointHitTester(CameraModel camera, const Matrix4x4& worldFromCamera,
                        std::vector<Float3> points);
  std::vector<HitTestResult> hitTest(Float2 imagePoint, HitTestType type) const;

 private:
  CameraModel camera_;
  Mat3 rotation_;
  Vec3 position_;
  std::vector<Float3> points_;
};

class RecordingPlayer {
 public:
  explicit RecordingPlayer(std::shared_ptr<const Recording> recording);

  const Recording& recording() const { return *recording_; }
  CameraModel camera() const;
  // The frame as the host hands it over. renderImage false: a flat image carrying only the tag.
  ArFrame arFrame(const RecordedFrame& frame, bool renderImage = true) const;

 private:
  std::shared_ptr<const Recording> recording_;
};

}  // namespace omra::sim
