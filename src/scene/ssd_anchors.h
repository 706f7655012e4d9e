// The fixed SSD anchor table of a 300x300 detector with six feature maps: built once, read-only,
// safe to read from any thread.
#pragma once

#include <array>
#include <vector>

namespace omra {

struct SSDAnchors {
  static constexpr int kNumAnchors = 1917;
  using Row = std::array<float, 4>;  // yMin, xMin, yMax, xMax, normalised, not clipped

  // The 1917 rows, map by map (19x19 first), row-major cells, shapes in cell order.
  static const std::vector<Row>& ssdAnchors();
};

}  // namespace omra
