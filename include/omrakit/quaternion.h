// Quaternion: a rotation as (x, y, z, w), w the scalar part, built from Euler angles in degrees.
//
// Immutable value; safe to share between threads. Not normalised on construction.
#pragma once

#include "omrakit/vector3.h"

namespace omra {

class Quaternion {
 public:
  constexpr Quaternion() = default;
  constexpr Quaternion(float x, float y, float z, float w) : x_(x), y_(y), z_(z), w_(w) {}

  // Rotation about z first, then x, then y (the product qy * qx * qz), angles in degrees.
  static Quaternion euler(float x, float y, float z);

  constexpr float x() const { return x_; }
  constexpr float y() const { return y_; }
  constexpr float z() const { return z_; }
  constexpr float w() const { return w_; }

  // Applies the quaternion's rotation matrix to vec, without normalising the quaternion.
  Vector3 rotate(const Vector3& vec) const;

 private:
  float x_ = 0, y_ = 0, z_ = 0, w_ = 1;
};

}  // namespace omra
