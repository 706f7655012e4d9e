#include "server/localizers/point_grid.h"

#include <cmath>

namespace omra::server {

PointGrid::PointGrid(const std::vector<Vec3>& points, double cell) : cell_(cell) {
  for (const Vec3& p : points) {
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
    // Points beyond a kilometre cannot belong to a room and would overflow the cell key.
    if (std::fabs(p[0]) > 1e3 || std::fabs(p[1]) > 1e3 || std::fabs(p[2]) > 1e3) continue;
    cells_[key(static_cast<int64_t>(std::floor(p[0] / cell_)),
               static_cast<int64_t>(std::floor(p[1] / cell_)),
               static_cast<int64_t>(std::floor(p[2] / cell_)))]
        .push_back(p);
    ++count_;
  }
}

int64_t PointGrid::key(int64_t x, int64_t y, int64_t z) const {
  // 21 bits per axis: +-1 km at cells of a millimetre and up.
  constexpr int64_t kMask = (int64_t{1} << 21) - 1;
  return ((x & kMask) << 42) | ((y & kMask) << 21) | (z & kMask);
}

std::optional<Vec3> PointGrid::nearest(const Vec3& p, double radius) const {
  if (count_ == 0 || !std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2]) ||
      std::fabs(p[0]) > 1e3 || std::fabs(p[1]) > 1e3 || std::fabs(p[2]) > 1e3) {
    return std::nullopt;
  }
  const auto cx = static_cast<int64_t>(std::floor(p[0] / cell_));
  const auto cy = static_cast<int64_t>(std::floor(p[1] / cell_));
  const auto cz = static_cast<int64_t>(std::floor(p[2] / cell_));
  double best = radius * radius;
  std::optional<Vec3> out;
  for (int64_t dx = -1; dx <= 1; ++dx) {
    for (int64_t dy = -1; dy <= 1; ++dy) {
      for (int64_t dz = -1; dz <= 1; ++dz) {
        auto it = cells_.find(key(cx + dx, cy + dy, cz + dz));
        if (it == cells_.end()) continue;
        for (const Vec3& q : it->second) {
          const double d2 = (q[0] - p[0]) * (q[0] - p[0]) + (q[1] - p[1]) * (q[1] - p[1]) +
                            (q[2] - p[2]) * (q[2] - p[2]);
          if (d2 <= best) {
            best = d2;
            out = q;
          }
        }
      }
    }
  }
  return out;
}

size_t PointGrid::bytes() const {
  return count_ * sizeof(Vec3) + cells_.size() * (sizeof(int64_t) + sizeof(std::vector<Vec3>) + 16);
}

}  // namespace omra::server
