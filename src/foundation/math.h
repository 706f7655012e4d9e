// Small numeric helpers shared by the kit: interpolation, clamping, the median and the text of a
// 3-float vector. Plain functions; thread-safe.
#pragma once

#include <string>
#include <vector>

#include "omrakit/geometry.h"
#include "omrakit/vector3.h"

namespace omra {

// start + (end - start) * t per component; t is not clamped, so it extrapolates outside [0, 1].
constexpr Vector3 lerp(const Vector3& start, const Vector3& end, float t) {
  return start + (end - start) * t;
}

template <class T>
constexpr T clamp(const T& value, const T& min, const T& max) {
  if (value < min) return min;
  if (value > max) return max;
  return value;
}

// Median of values (mean of the middle two for an even count). Empty input is fatal.
float calculateMedian(std::vector<float> values);

// "x,y,z", each number as formatFloatShortest writes it.
std::string convertVectorFloat3ToString(const Float3& v);
void appendVectorFloat3(std::string& out, const Float3& v);

}  // namespace omra
