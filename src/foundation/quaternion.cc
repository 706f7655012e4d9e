#include "omrakit/quaternion.h"

#include <cmath>

namespace omra {

Quaternion Quaternion::euler(float x, float y, float z) {
  const float toHalfRadians = kPi / 180.0f * 0.5f;
  const float hx = x * toHalfRadians, hy = y * toHalfRadians, hz = z * toHalfRadians;
  const float cx = std::cos(hx), sx = std::sin(hx);
  const float cy = std::cos(hy), sy = std::sin(hy);
  const float cz = std::cos(hz), sz = std::sin(hz);
  return Quaternion(sx * cy * cz + cx * sy * sz,  //
                    cx * sy * cz - sx * cy * sz,  //
                    cx * cy * sz - sx * sy * cz,  //
                    cx * cy * cz + sx * sy * sz);
}

Vector3 Quaternion::rotate(const Vector3& v) const {
  const float x = x_, y = y_, z = z_, w = w_;
  return {(1 - 2 * (y * y + z * z)) * v.x + 2 * (x * y - w * z) * v.y + 2 * (x * z + w * y) * v.z,
          2 * (x * y + w * z) * v.x + (1 - 2 * (x * x + z * z)) * v.y + 2 * (y * z - w * x) * v.z,
          2 * (x * z - w * y) * v.x + 2 * (y * z + w * x) * v.y + (1 - 2 * (x * x + y * y)) * v.z};
}

}  // namespace omra
