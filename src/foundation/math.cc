#include "src/foundation/math.h"

#include <algorithm>
#include <cmath>

#include "src/foundation/fatal.h"
#include "src/foundation/number_format.h"

namespace omra {

float calculateMedian(std::vector<float> values) {
  OMRA_CHECK(!values.empty(), "calculateMedian of an empty array");
  // NaN breaks the strict weak order that std::sort relies on (it may then run past the ends), so
  // NaNs sort after every number here.
  std::sort(values.begin(), values.end(), [](float a, float b) {
    if (std::isnan(a)) return false;
    return std::isnan(b) || a < b;
  });
  const size_t n = values.size();
  if (n % 2 == 1) return values[(n - 1) / 2];
  return (values[n / 2 - 1] + values[n / 2]) * 0.5f;
}

void appendVectorFloat3(std::string& out, const Float3& v) {
  appendFloatShortest(out, v.x);
  out += ',';
  appendFloatShortest(out, v.y);
  out += ',';
  appendFloatShortest(out, v.z);
}

std::string convertVectorFloat3ToString(const Float3& v) {
  std::string out;
  appendVectorFloat3(out, v);
  return out;
}

}  // namespace omra
