#include "src/scene/ssd_anchors.h"

#include <cmath>

#include "src/foundation/fatal.h"

namespace omra {
namespace {

struct Shape {
  double scale, aspect;
};

std::vector<SSDAnchors::Row> generate() {
  constexpr int kMapSizes[] = {19, 10, 5, 3, 2, 1};
  constexpr int kMaps = 6;
  constexpr double kMinScale = 0.2, kMaxScale = 0.95;
  double scales[kMaps + 1];
  for (int k = 0; k < kMaps; ++k) scales[k] = kMinScale + (kMaxScale - kMinScale) * k / (kMaps - 1);
  scales[kMaps] = 1.0;

  std::vector<SSDAnchors::Row> rows;
  rows.reserve(SSDAnchors::kNumAnchors);
  for (int k = 0; k < kMaps; ++k) {
    std::vector<Shape> shapes;
    if (k == 0) {
      // The first map uses a reduced set with a smaller base box.
      shapes = {{0.1, 1.0}, {scales[0], 2.0}, {scales[0], 0.5}};
    } else {
      for (double aspect : {1.0, 2.0, 0.5, 3.0, 1.0 / 3.0}) shapes.push_back({scales[k], aspect});
      shapes.push_back({std::sqrt(scales[k] * scales[k + 1]), 1.0});
    }
    const int n = kMapSizes[k];
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) {
        const double yc = (i + 0.5) / n, xc = (j + 0.5) / n;
        for (const Shape& s : shapes) {
          const double h = s.scale / std::sqrt(s.aspect), w = s.scale * std::sqrt(s.aspect);
          rows.push_back({static_cast<float>(yc - h / 2), static_cast<float>(xc - w / 2),
                          static_cast<float>(yc + h / 2), static_cast<float>(xc + w / 2)});
        }
      }
    }
  }
  OMRA_CHECK(rows.size() == SSDAnchors::kNumAnchors, "SSD anchor table has the wrong size");
  return rows;
}

}  // namespace

const std::vector<SSDAnchors::Row>& SSDAnchors::ssdAnchors() {
  static const std::vector<Row> table = generate();
  return table;
}

}  // namespace omra
