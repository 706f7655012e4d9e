#include "sim/yaw_transform.h"

#include <charconv>
#include <cmath>

#include "src/foundation/number_format.h"

namespace omra::sim {

YawTransform YawTransform::inverse() const {
  // p = R^T (p' - t)
  Vec3 t = Mat3::rotY(-theta) * translation();
  return {-t.x, -t.y, -t.z, wrapAngle(-theta)};
}

YawTransform YawTransform::compose(const YawTransform& other) const {
  Vec3 t = apply(other.translation());
  return {t.x, t.y, t.z, wrapAngle(theta + other.theta)};
}

std::string YawTransform::toText() const {
  std::string text;
  appendDoubleShortest(text, tx);
  text += ',';
  appendDoubleShortest(text, ty);
  text += ',';
  appendDoubleShortest(text, tz);
  text += ',';
  appendDoubleShortest(text, theta);
  return text;
}

std::optional<YawTransform> YawTransform::fromText(const std::string& text) {
  double v[4];
  const char* p = text.data();
  const char* const end = p + text.size();
  for (int i = 0; i < 4; ++i) {
    if (p != end && *p == '+') ++p;
    const auto [next, ec] = std::from_chars(p, end, v[i]);
    if (ec != std::errc() || !std::isfinite(v[i])) return std::nullopt;
    p = next;
    if (i < 3) {
      if (p == end || *p != ',') return std::nullopt;
      ++p;
    }
  }
  if (p != end) return std::nullopt;
  return YawTransform{v[0], v[1], v[2], v[3]};
}

}  // namespace omra::sim
