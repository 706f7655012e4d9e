// The simulated camera: a pinhole over the captured image and the detector's centre crop of it.
// Value type; all members are pure functions.
//
// Normalized image points are (0..1, origin top-left) over the captured image, as hit tests take
// them. Model points are normalized over the square centre crop the detector sees when the image
// is handed over upright (roll near 0, the orientation "up").
#pragma once

#include <optional>

#include "sim/sim_math.h"

namespace omra::sim {

struct CameraModel {
  int imageWidth = 64;
  int imageHeight = 64;
  double horizontalFovDegrees = 60;

  double tanHalfX() const;
  double tanHalfY() const;
  // Unit ray in camera coordinates through a normalized image point.
  Vec3 rayThroughImagePoint(double u, double v) const;
  // Normalized image point of a camera-space point; nullopt behind (or within 1 cm of) the camera.
  std::optional<std::pair<double, double>> project(const Vec3& cameraPoint) const;
  // Between normalized image and normalized model (centre-crop) coordinates.
  std::pair<double, double> imageToModel(double u, double v) const;
  std::pair<double, double> modelToImage(double x, double y) const;
};

}  // namespace omra::sim
