#include "src/scene/hit_points.h"

#include <algorithm>
#include <cmath>

#include "src/foundation/math.h"

namespace omra {

Vector3 getMedian(const std::vector<Vector3>& vals) {
  std::vector<float> xs, ys, zs;
  for (const Vector3& v : vals) xs.push_back(v.x), ys.push_back(v.y), zs.push_back(v.z);
  return {calculateMedian(xs), calculateMedian(ys), calculateMedian(zs)};
}

void HitPoints::filter() {
  filteredPoints.clear();
  if (points.empty()) return;
  const Vector3 m = getMedian(points);
  std::vector<float> d;
  for (const Vector3& p : points) d.push_back(p.dist(m));
  const float limit = std::max(kOutlierFactor * calculateMedian(d), kMinOutlierDistance);
  for (size_t i = 0; i < points.size(); ++i)
    if (d[i] <= limit) filteredPoints.push_back(points[i]);
}

std::vector<Vector3> HitPoints::rotate(const std::vector<Vector3>& pts, const Vector3& c,
                                       float theta) {
  const float cs = std::cos(theta), sn = std::sin(theta);
  std::vector<Vector3> out;
  out.reserve(pts.size());
  for (const Vector3& p : pts) {
    const float dx = p.x - c.x, dz = p.z - c.z;
    out.push_back({c.x + dx * cs - dz * sn, p.y, c.z + dx * sn + dz * cs});
  }
  return out;
}

BoundingBox3D HitPoints::roundCorners(const std::vector<Vector3>& pts, const Vector3& c,
                                      float theta, double confidence) {
  Vector3 lo = pts.front(), hi = pts.front();
  for (const Vector3& p : pts) {
    lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
    hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
  }
  auto span = [](float a, float b) {
    return std::max(kMinSpan, std::ceil((b - a) * 100.f - 1e-3f) / 100.f);
  };
  // The middle of the extents, turned back into the world about the centroid: the box stores
  // extents around its world centre, and getCubeVertices turns the corners about that centre.
  const Vector3 m = (lo + hi) / 2.f;
  const float cs = std::cos(theta), sn = std::sin(theta);
  const float dx = m.x - c.x, dz = m.z - c.z;
  const Vector3 mid{c.x + dx * cs - dz * sn, m.y, c.z + dx * sn + dz * cs};
  const Vector3 half{span(lo.x, hi.x) / 2, span(lo.y, hi.y) / 2, span(lo.z, hi.z) / 2};
  return {mid.x - half.x, mid.x + half.x, mid.y - half.y, mid.y + half.y,
          mid.z - half.z, mid.z + half.z, theta,          confidence};
}

BoundingBox3D HitPoints::getBoundingRectangle(double confidence) {
  filter();
  const std::vector<Vector3>& pts = usedPoints();
  if (pts.empty()) {
    BoundingBox3D empty;
    empty.confidence = confidence;
    return empty;
  }
  const Vector3 c = getMedian(pts);
  // Principal direction in the horizontal plane; 0 when the points give none.
  double sxx = 0, szz = 0, sxz = 0;
  for (const Vector3& p : pts) {
    const double dx = p.x - c.x, dz = p.z - c.z;
    sxx += dx * dx, szz += dz * dz, sxz += dx * dz;
  }
  const float theta =
      (sxx == 0 && szz == 0) ? 0.f : static_cast<float>(0.5 * std::atan2(2 * sxz, sxx - szz));
  // Extents along the principal axes: turn the points back by theta about the centroid.
  return roundCorners(rotate(pts, c, -theta), c, theta, confidence);
}

}  // namespace omra
