#include "server/localizers/pose4.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "src/foundation/number_format.h"

namespace omra::server {

Vec3 Pose4::apply(const Vec3& p) const {
  const double c = std::cos(theta), s = std::sin(theta);
  return {tx + c * p[0] + s * p[2], ty + p[1], tz - s * p[0] + c * p[2]};
}

std::string Pose4::toText() const {
  // Locale-free: the text goes to the kit, which reads it with '.' as the decimal point.
  std::string text;
  appendFixed(text, tx, 6);
  text += ',';
  appendFixed(text, ty, 6);
  text += ',';
  appendFixed(text, tz, 6);
  text += ',';
  appendFixed(text, theta, 7);
  return text;
}

std::optional<Pose4> Pose4::parse(std::string_view text) {
  double v[4];
  size_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t end = std::min(text.find(',', pos), text.size());
    std::string_view piece = text.substr(pos, end - pos);
    auto [ptr, ec] = std::from_chars(piece.data(), piece.data() + piece.size(), v[i]);
    if (ec != std::errc() || ptr != piece.data() + piece.size() || !std::isfinite(v[i])) {
      return std::nullopt;
    }
    if (i < 3 && end == text.size()) return std::nullopt;
    pos = end + 1;
  }
  if (pos <= text.size()) return std::nullopt;  // trailing fields
  return Pose4{v[0], v[1], v[2], v[3]};
}

double wrapAngle(double a) {
  a = std::remainder(a, 2 * std::numbers::pi);
  return a <= -std::numbers::pi ? a + 2 * std::numbers::pi : a;
}

double heading(const Vec3& v) { return std::atan2(v[0], v[2]); }

double distance(const Vec3& a, const Vec3& b) {
  const double dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2];
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

double horizontalDistance(const Vec3& a, const Vec3& b) {
  const double dx = a[0] - b[0], dz = a[2] - b[2];
  return std::sqrt(dx * dx + dz * dz);
}

Mat4 multiply(const Mat4& a, const Mat4& b) {
  Mat4 r{};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      double s = 0;
      for (int k = 0; k < 4; ++k) s += a[i * 4 + k] * b[k * 4 + j];
      r[i * 4 + j] = s;
    }
  }
  return r;
}

Mat4 rigidInverse(const Mat4& m) {
  Mat4 r{};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) r[i * 4 + j] = m[j * 4 + i];
  }
  for (int i = 0; i < 3; ++i) {
    r[i * 4 + 3] = -(r[i * 4 + 0] * m[3] + r[i * 4 + 1] * m[7] + r[i * 4 + 2] * m[11]);
  }
  r[15] = 1;
  return r;
}

Pose4 reduceToPose4(const Mat4& m) {
  // Least-squares fit of R(theta) to the 3x3 block: only the x-z entries carry theta.
  const double theta = std::atan2(m[2] - m[8], m[0] + m[10]);
  return {m[3], m[7], m[11], theta};
}

}  // namespace omra::server
