#include "src/scene/detection_rays.h"

#include <cmath>

namespace omra {
namespace {

// Solves the symmetric 3x3 system m x = b by Cramer's rule; false when it is (nearly) singular.
bool solve3(const double m[3][3], const double b[3], double x[3]) {
  auto det = [](const double a[3][3]) {
    return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
           a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
           a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
  };
  const double d = det(m);
  double scale = 0;
  for (int i = 0; i < 3; ++i) scale = std::max(scale, std::fabs(m[i][i]));
  if (!(std::fabs(d) > 1e-12 * scale * scale * scale)) return false;
  for (int k = 0; k < 3; ++k) {
    double a[3][3];
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) a[i][j] = j == k ? b[i] : m[i][j];
    }
    x[k] = det(a) / d;
  }
  return std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]);
}

}  // namespace

std::optional<DetectionRays> DetectionRays::fit(const std::vector<Vector3>& hits,
                                                const std::vector<Float2>& imagePoints,
                                                const Matrix4x4& worldFromCamera) {
  if (hits.size() != imagePoints.size() || hits.size() < 4) return std::nullopt;
  const Float4* c = worldFromCamera.columns.data();
  struct Sample {
    double u, v, tx, ty;
  };
  std::vector<Sample> samples;
  samples.reserve(hits.size());
  for (size_t i = 0; i < hits.size(); ++i) {
    const double dx = hits[i].x - c[3].x, dy = hits[i].y - c[3].y, dz = hits[i].z - c[3].z;
    // Into the camera's frame: the rotation's columns are its axes in the world.
    const double qx = dx * c[0].x + dy * c[0].y + dz * c[0].z;
    const double qy = dx * c[1].x + dy * c[1].y + dz * c[1].z;
    const double qz = dx * c[2].x + dy * c[2].y + dz * c[2].z;
    if (!(qz < -1e-3)) continue;  // behind the camera, or not a number
    samples.push_back({imagePoints[i].x, imagePoints[i].y, qx / -qz, qy / -qz});
  }
  // Normal equations of both affine fits; they share the design.
  double m[3][3] = {}, bx[3] = {}, by[3] = {};
  for (const Sample& s : samples) {
    const double row[3] = {1, s.u, s.v};
    for (int r = 0; r < 3; ++r) {
      for (int k = 0; k < 3; ++k) m[r][k] += row[r] * row[k];
      bx[r] += row[r] * s.tx;
      by[r] += row[r] * s.ty;
    }
  }
  DetectionRays out;
  if (samples.size() < 4 || !solve3(m, bx, out.tanX_) || !solve3(m, by, out.tanY_)) {
    return std::nullopt;
  }
  // A feature-point hit lies near its ray, not on it; hits far off every such fit were not
  // tested where they say (or the camera's pose is not the one they were tested from).
  double sum = 0;
  for (const Sample& s : samples) {
    sum += std::pow(out.tanX_[0] + out.tanX_[1] * s.u + out.tanX_[2] * s.v - s.tx, 2) +
           std::pow(out.tanY_[0] + out.tanY_[1] * s.u + out.tanY_[2] * s.v - s.ty, 2);
  }
  if (!(std::sqrt(sum / static_cast<double>(samples.size())) <= kMaxOffRay)) return std::nullopt;
  out.worldFromCamera_ = worldFromCamera;
  return out;
}

Vector3 DetectionRays::direction(Float2 p) const {
  const double tx = tanX_[0] + tanX_[1] * p.x + tanX_[2] * p.y;
  const double ty = tanY_[0] + tanY_[1] * p.x + tanY_[2] * p.y;
  const Float4* c = worldFromCamera_.columns.data();
  // (tx, ty, -1) in the camera's frame, into the world.
  const Vector3 d(static_cast<float>(tx * c[0].x + ty * c[1].x - c[2].x),
                  static_cast<float>(tx * c[0].y + ty * c[1].y - c[2].y),
                  static_cast<float>(tx * c[0].z + ty * c[1].z - c[2].z));
  return d.normalized();
}

}  // namespace omra
