// A gravity-aligned rigid transform: rotation theta about y, then translation (value type).
//
// p' = t + R(theta) p with R(theta) rows (cos, 0, sin), (0, 1, 0), (-sin, 0, cos): the form the
// back end's transform texts "tx,ty,tz,theta" use, so truths compare directly with localizer
// answers.
#pragma once

#include <optional>
#include <string>

#include "sim/sim_math.h"

namespace omra::sim {

struct YawTransform {
  double tx = 0, ty = 0, tz = 0, theta = 0;

  Vec3 translation() const { return {tx, ty, tz}; }
  Vec3 apply(const Vec3& p) const { return translation() + Mat3::rotY(theta) * p; }
  // Direction only (no translation).
  Vec3 rotate(const Vec3& d) const { return Mat3::rotY(theta) * d; }
  YawTransform inverse() const;
  // (this * other)(p) = this(other(p)).
  YawTransform compose(const YawTransform& other) const;
  // "tx,ty,tz,theta" with enough digits to read back the same doubles.
  std::string toText() const;
  // Parses "tx,ty,tz,theta"; nullopt on anything else (also non-finite numbers).
  static std::optional<YawTransform> fromText(const std::string& text);
};

}  // namespace omra::sim
