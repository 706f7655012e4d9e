// Feature points bucketed in a uniform grid, so that the nearest point to a query is found by
// looking at the 27 cells around it. Owned by a map index; immutable after construction, so safe
// to share across threads.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "server/localizers/pose4.h"

namespace omra::server {

class PointGrid {
 public:
  PointGrid() = default;
  // cell: the largest radius nearest() answers for, metres.
  PointGrid(const std::vector<Vec3>& points, double cell);

  // The point nearest to p within radius (<= cell), if any.
  std::optional<Vec3> nearest(const Vec3& p, double radius) const;
  size_t size() const { return count_; }
  double cell() const { return cell_; }
  size_t bytes() const;

 private:
  int64_t key(int64_t x, int64_t y, int64_t z) const;
  double cell_ = 0.1;
  size_t count_ = 0;
  std::unordered_map<int64_t, std::vector<Vec3>> cells_;
};

}  // namespace omra::server
