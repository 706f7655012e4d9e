// Vector3: three 32-bit floats (metres), with component-wise operators and the angle helpers the
// kit's geometry uses. Angles are in degrees, except theta(), which is in radians.
//
// Plain value; no allocation. Not thread-safe to mutate one instance concurrently.
#pragma once

#include <cmath>

#include "omrakit/geometry.h"

namespace omra {

// Single-precision pi, used throughout the kit's angle conversions.
inline constexpr float kPi = 3.1415927f;

struct Vector3 {
  float x = 0, y = 0, z = 0;

  constexpr Vector3() = default;
  constexpr Vector3(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
  constexpr explicit Vector3(const Float3& v) : x(v.x), y(v.y), z(v.z) {}

  constexpr Float3 convert() const { return {x, y, z}; }
  static constexpr Vector3 up() { return {0, 1, 0}; }

  float length() const { return std::sqrt(x * x + y * y + z * z); }
  // No check for zero length: a zero vector gives not-a-number components.
  void normalize() { *this = normalized(); }
  Vector3 normalized() const {
    const float len = length();
    return {x / len, y / len, z / len};
  }
  constexpr float dot(const Vector3& v) const { return x * v.x + y * v.y + z * v.z; }
  constexpr Vector3 cross(const Vector3& v) const {
    return {y * v.z - z * v.y, z * v.x - x * v.z, x * v.y - y * v.x};
  }
  float dist(const Vector3& v) const;
  constexpr bool equalToScalar(float s) const { return x == s && y == s && z == s; }
  // Heading in the x-z plane in radians, from +x and positive towards +z, in (-pi, pi].
  // x = z = 0 gives not a number.
  float theta() const;

  static constexpr float dotProduct(const Vector3& l, const Vector3& r) { return l.dot(r); }
  static constexpr Vector3 crossProduct(const Vector3& l, const Vector3& r) { return l.cross(r); }
  // Unsigned angle in degrees; the cosine is not clamped, so rounding past 1 gives not a number.
  static float angle(const Vector3& from, const Vector3& to);
  // The unsigned angle, signed by the side of n on which a x b lies (0 when perpendicular to n).
  static float signedAngle(const Vector3& a, const Vector3& b, const Vector3& n);

  constexpr Vector3& operator+=(const Vector3& v) {
    x += v.x, y += v.y, z += v.z;
    return *this;
  }
  constexpr Vector3& operator-=(const Vector3& v) {
    x -= v.x, y -= v.y, z -= v.z;
    return *this;
  }
  constexpr Vector3& operator*=(const Vector3& v) {
    x *= v.x, y *= v.y, z *= v.z;
    return *this;
  }
  constexpr Vector3& operator/=(const Vector3& v) {
    x /= v.x, y /= v.y, z /= v.z;
    return *this;
  }
  constexpr Vector3& operator*=(float s) {
    x *= s, y *= s, z *= s;
    return *this;
  }
  constexpr Vector3& operator/=(float s) {
    x /= s, y /= s, z /= s;
    return *this;
  }
};

constexpr Vector3 operator+(Vector3 a, const Vector3& b) { return a += b; }
constexpr Vector3 operator-(Vector3 a, const Vector3& b) { return a -= b; }
// Component-wise, not dot or cross.
constexpr Vector3 operator*(Vector3 a, const Vector3& b) { return a *= b; }
constexpr Vector3 operator/(Vector3 a, const Vector3& b) { return a /= b; }
constexpr Vector3 operator*(Vector3 a, float s) { return a *= s; }
constexpr Vector3 operator/(Vector3 a, float s) { return a /= s; }
// Exact float equality of all three components.
constexpr bool operator==(const Vector3& a, const Vector3& b) {
  return a.x == b.x && a.y == b.y && a.z == b.z;
}
constexpr bool operator==(const Vector3& a, float s) { return a.equalToScalar(s); }

}  // namespace omra
