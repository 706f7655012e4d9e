// A rigid transform with four degrees of freedom (translation plus a turn about the vertical axis),
// the only kind the kit applies to stored placements. Value type.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace omra::server {

using Vec3 = std::array<double, 3>;

// Carries a point p of the map's frame into the session's frame as t + R(theta) p, where R(theta)
// has rows (cos, 0, sin), (0, 1, 0), (-sin, 0, cos).
struct Pose4 {
  double tx = 0, ty = 0, tz = 0, theta = 0;

  Vec3 apply(const Vec3& p) const;
  // "tx,ty,tz,theta", the text the kit parses.
  std::string toText() const;
  static std::optional<Pose4> parse(std::string_view text);
};

// The angle in (-pi, pi].
double wrapAngle(double radians);
// Heading of the horizontal part of v, such that R(theta) adds theta to it.
double heading(const Vec3& v);
double distance(const Vec3& a, const Vec3& b);
double horizontalDistance(const Vec3& a, const Vec3& b);

// Row-major 4x4 rigid transform (rotation and translation), as the camera path records it.
using Mat4 = std::array<double, 16>;
// a * b.
Mat4 multiply(const Mat4& a, const Mat4& b);
// Inverse of a rigid transform (rotation transposed).
Mat4 rigidInverse(const Mat4& m);
// The nearest Pose4: the translation, and the turn about y that best fits the rotation.
Pose4 reduceToPose4(const Mat4& m);

}  // namespace omra::server
