#include "sim/camera_model.h"

#include <algorithm>
#include <cmath>

namespace omra::sim {

double CameraModel::tanHalfX() const { return std::tan(horizontalFovDegrees * M_PI / 360.0); }

double CameraModel::tanHalfY() const {
  return tanHalfX() * static_cast<double>(imageHeight) / static_cast<double>(imageWidth);
}

Vec3 CameraModel::rayThroughImagePoint(double u, double v) const {
  return Vec3{(2 * u - 1) * tanHalfX(), -(2 * v - 1) * tanHalfY(), -1}.normalized();
}

std::optional<std::pair<double, double>> CameraModel::project(const Vec3& p) const {
  if (p.z > -0.01) return std::nullopt;
  double depth = -p.z;
  return std::make_pair(0.5 + p.x / depth / (2 * tanHalfX()), 0.5 - p.y / depth / (2 * tanHalfY()));
}

std::pair<double, double> CameraModel::imageToModel(double u, double v) const {
  double w = imageWidth, h = imageHeight, s = std::min(w, h);
  return {(u * w - (w - s) / 2) / s, (v * h - (h - s) / 2) / s};
}

std::pair<double, double> CameraModel::modelToImage(double x, double y) const {
  double w = imageWidth, h = imageHeight, s = std::min(w, h);
  return {(x * s + (w - s) / 2) / w, (y * s + (h - s) / 2) / h};
}

}  // namespace omra::sim
