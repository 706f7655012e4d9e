// The rays through any point of one detection's image rectangle, recovered from its hit tests:
// the platform does not hand over the camera's intrinsics, but each hit lies on the ray through
// the image point it was tested at, and a pinhole camera's ray tangents are affine in image
// coordinates whatever the rays hit (the object, or the floor behind its edge). Value type;
// thread-safe to read.
#pragma once

#include <optional>
#include <vector>

#include "omrakit/geometry.h"
#include "omrakit/vector3.h"

namespace omra {

class DetectionRays {
 public:
  // How far (as a tangent, rms) hits may lie off the fitted rays: a feature-point hit test takes
  // points within a few degrees of its ray.
  static constexpr double kMaxOffRay = 0.07;

  // Fits the rays from hits (world points) and the image points they were tested at. None
  // without four hits in front of the camera that span the image both ways (three fit any rays;
  // a fourth checks them), or when the hits lie farther off the rays than kMaxOffRay.
  static std::optional<DetectionRays> fit(const std::vector<Vector3>& hits,
                                          const std::vector<Float2>& imagePoints,
                                          const Matrix4x4& worldFromCamera);

  // The unit direction, in the world, of the ray through an image point.
  Vector3 direction(Float2 imagePoint) const;

 private:
  // Ray tangents in the camera's frame (x / -z and y / -z) as a + b * u + c * v of the image
  // point (u, v).
  double tanX_[3] = {0, 0, 0}, tanY_[3] = {0, 0, 0};
  Matrix4x4 worldFromCamera_;
};

}  // namespace omra
