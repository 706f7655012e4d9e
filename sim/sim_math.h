// Double-precision vector helpers for the simulator's geometry (value types, no shared state).
//
// Room and session frames follow the kit's conventions: metres, y up, right-handed. A camera looks
// along its -z axis with +x to the right of the image and +y up.
#pragma once

#include <cmath>

#include "omrakit/geometry.h"

namespace omra::sim {

struct Vec3 {
  double x = 0, y = 0, z = 0;

  Vec3 operator+(const Vec3& o) const { return {x + o.x, y + o.y, z + o.z}; }
  Vec3 operator-(const Vec3& o) const { return {x - o.x, y - o.y, z - o.z}; }
  Vec3 operator*(double s) const { return {x * s, y * s, z * s}; }
  Vec3 operator-() const { return {-x, -y, -z}; }
  double dot(const Vec3& o) const { return x * o.x + y * o.y + z * o.z; }
  Vec3 cross(const Vec3& o) const {
    return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
  }
  double norm() const { return std::sqrt(dot(*this)); }
  Vec3 normalized() const {
    double n = norm();
    return n > 0 ? *this * (1.0 / n) : Vec3{};
  }
  Float3 toFloat3() const {
    return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
  }
  static Vec3 from(const Float3& f) { return {f.x, f.y, f.z}; }
};

// Row-major 3x3 rotation matrix.
struct Mat3 {
  double m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

  Vec3 operator*(const Vec3& v) const {
    return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
            m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
            m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
  }
  Mat3 operator*(const Mat3& o) const {
    Mat3 r;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        r.m[i][j] = m[i][0] * o.m[0][j] + m[i][1] * o.m[1][j] + m[i][2] * o.m[2][j];
    return r;
  }
  Mat3 transposed() const {
    Mat3 r;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) r.m[i][j] = m[j][i];
    return r;
  }
  Vec3 column(int j) const { return {m[0][j], m[1][j], m[2][j]}; }

  static Mat3 rotX(double a) {
    double c = std::cos(a), s = std::sin(a);
    return {{{1, 0, 0}, {0, c, -s}, {0, s, c}}};
  }
  // Rows (cos, 0, sin), (0, 1, 0), (-sin, 0, cos): the rotation of the back end's transform texts.
  static Mat3 rotY(double a) {
    double c = std::cos(a), s = std::sin(a);
    return {{{c, 0, s}, {0, 1, 0}, {-s, 0, c}}};
  }
  static Mat3 rotZ(double a) {
    double c = std::cos(a), s = std::sin(a);
    return {{{c, -s, 0}, {s, c, 0}, {0, 0, 1}}};
  }
};

// Camera orientation from Euler angles as AR platforms report them: roll about z first, then pitch
// about x, then yaw about y (world_from_camera = Ry(yaw) Rx(pitch) Rz(roll)).
inline Mat3 rotationFromEuler(double pitch, double yaw, double roll) {
  return Mat3::rotY(yaw) * Mat3::rotX(pitch) * Mat3::rotZ(roll);
}

// Inverse of rotationFromEuler for |pitch| < pi/2: returns (pitch, yaw, roll).
inline Vec3 eulerFromRotation(const Mat3& r) {
  double pitch = std::asin(std::fmax(-1.0, std::fmin(1.0, -r.m[1][2])));
  double yaw = std::atan2(r.m[0][2], r.m[2][2]);
  double roll = std::atan2(r.m[1][0], r.m[1][1]);
  return {pitch, yaw, roll};
}

// Wraps an angle into (-pi, pi].
inline double wrapAngle(double a) {
  a = std::remainder(a, 2 * M_PI);
  return a <= -M_PI ? a + 2 * M_PI : a;
}

inline Matrix4x4 makeTransform(const Mat3& r, const Vec3& t) {
  Matrix4x4 out;
  for (int j = 0; j < 3; ++j) {
    out.columns[static_cast<size_t>(j)] = {static_cast<float>(r.m[0][j]),
                                           static_cast<float>(r.m[1][j]),
                                           static_cast<float>(r.m[2][j]), 0.f};
  }
  out.columns[3] = {static_cast<float>(t.x), static_cast<float>(t.y), static_cast<float>(t.z), 1.f};
  return out;
}

inline Mat3 rotationOf(const Matrix4x4& t) {
  Mat3 r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r.m[i][j] = t.at(i, j);
  return r;
}

}  // namespace omra::sim
