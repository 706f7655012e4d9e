// A rectangle in points or pixels (origin, size), as the platform's CGRect: value type.
#pragma once

#include <algorithm>

namespace omra {

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;

  double minX() const { return std::min(x, x + width); }
  double maxX() const { return std::max(x, x + width); }
  double minY() const { return std::min(y, y + height); }
  double maxY() const { return std::max(y, y + height); }
  bool operator==(const Rect&) const = default;
};

}  // namespace omra
