#include "src/scene/bounding_box_3d.h"

#include <cmath>

namespace omra {

std::array<Vector3, 8> BoundingBox3D::getCubeVertices(bool withoutRotation) const {
  std::array<Vector3, 8> v;
  const float ys[2] = {minY, maxY};
  for (int f = 0; f < 2; ++f) {
    v[f * 4 + 0] = {minX, ys[f], minZ};
    v[f * 4 + 1] = {maxX, ys[f], minZ};
    v[f * 4 + 2] = {maxX, ys[f], maxZ};
    v[f * 4 + 3] = {minX, ys[f], maxZ};
  }
  if (withoutRotation || theta == 0) return v;
  // Heading measured from +x towards +z (as Vector3::theta): turning by theta maps +x onto
  // (cos, 0, sin).
  const Vector3 c = center();
  const float cs = std::cos(theta), sn = std::sin(theta);
  for (Vector3& p : v) {
    const float dx = p.x - c.x, dz = p.z - c.z;
    p.x = c.x + dx * cs - dz * sn;
    p.z = c.z + dx * sn + dz * cs;
  }
  return v;
}

}  // namespace omra
