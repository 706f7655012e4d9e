#include "sim/yaw_transform.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

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
  char buf[128];
  std::snprintf(buf, sizeof buf, "%.17g,%.17g,%.17g,%.17g", tx, ty, tz, theta);
  return buf;
}

std::optional<YawTransform> YawTransform::fromText(const std::string& text) {
  double v[4];
  const char* p = text.c_str();
  for (int i = 0; i < 4; ++i) {
    char* end = nullptr;
    errno = 0;
    v[i] = std::strtod(p, &end);
    if (end == p || errno == ERANGE || !std::isfinite(v[i])) return std::nullopt;
    p = end;
    if (i < 3) {
      if (*p != ',') return std::nullopt;
      ++p;
    }
  }
  if (*p != '\0') return std::nullopt;
  return YawTransform{v[0], v[1], v[2], v[3]};
}

}  // namespace omra::sim
