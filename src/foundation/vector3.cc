#include "omrakit/vector3.h"

namespace omra {

float Vector3::dist(const Vector3& v) const { return (*this - v).length(); }

float Vector3::theta() const {
  const float r = std::sqrt(z * z + x * x);
  const float t = std::acos(x / r);
  return z < 0 ? -t : t;
}

float Vector3::angle(const Vector3& from, const Vector3& to) {
  const Vector3 a = from * (1.0f / from.length());
  const Vector3 b = to * (1.0f / to.length());
  return std::acos(a.dot(b)) * 180.0f / kPi;
}

float Vector3::signedAngle(const Vector3& a, const Vector3& b, const Vector3& n) {
  const float unsignedAngle = angle(a, b);
  const float side = a.cross(b).dot(n);
  // NaN compares false both ways and so counts as zero.
  const float sign = side > 0 ? 1.0f : side < 0 ? -1.0f : 0.0f;
  return unsignedAngle * sign;
}

}  // namespace omra
