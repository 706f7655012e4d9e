#include "server/geo_grid.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace omra::server {
namespace {

constexpr double kRadians = std::numbers::pi / 180;
// Edges belong to the box; the slack absorbs the rounding of halved deltas.
constexpr double kSlackDegrees = 1e-9;

// Longitude difference folded into [0, 180], so that a box may straddle the date line.
double longitudeGap(double a, double b) {
  double d = std::fmod(a - b, 360.0);
  if (d > 180) d -= 360;
  if (d < -180) d += 360;
  return std::abs(d);
}

// Degrees east of the antimeridian, in [0, 360).
double eastOfAntimeridian(double longitude) {
  double u = std::fmod(longitude + 180, 360.0);
  if (u < 0) u += 360;
  return u >= 360 ? 0 : u;
}

// The grid index of a coordinate at a level. Every level scales the same quotient by a power of
// two, which is exact, so a point's cells nest from level to level whatever the rounding.
int64_t gridIndex(double degreesFromOrigin, int level) {
  return static_cast<int64_t>(std::floor(std::ldexp(degreesFromOrigin / 45, 2 * level)));
}

int64_t rowOf(int level, double latitude) {
  const double lat = std::clamp(latitude, -90.0, 90.0);
  return std::clamp<int64_t>(gridIndex(lat + 90, level), 0, gridRows(level) - 1);
}

double cellSouth(const GridCell& c) {
  return static_cast<double>(c.row) * cellDegrees(c.level) - 90;
}
double cellCentreLon(const GridCell& c) {
  return (static_cast<double>(c.col) + 0.5) * cellDegrees(c.level) - 180;
}

// The farthest any point of the cell lies from its centre, from above: the haversine term with
// both latitude and longitude gaps at their largest, and the cosines at the cell's latitude
// nearest the equator.
double cellRadiusMetres(const GridCell& c) {
  const double s = cellDegrees(c.level);
  const double south = cellSouth(c), north = south + s;
  const double nearestEquator =
      south <= 0 && north >= 0 ? 0 : std::min(std::abs(south), std::abs(north));
  const double cosMax = std::cos(nearestEquator * kRadians);
  const double half = std::sin(s / 4 * kRadians);
  const double a = std::min(1.0, half * half * (1 + cosMax * cosMax));
  const double r = 2 * kEarthRadiusMetres * std::asin(std::sqrt(a));
  return r * (1 + 1e-9) + 1e-6;
}

}  // namespace

bool GeoBox::contains(double lat, double lon) const {
  return std::abs(lat - latitude) <= halfLat + kSlackDegrees &&
         longitudeGap(lon, longitude) <= halfLon + kSlackDegrees;
}

double cellDegrees(int level) { return std::ldexp(45.0, -2 * level); }
int64_t gridRows(int level) { return int64_t{4} << (2 * level); }
int64_t gridCols(int level) { return int64_t{8} << (2 * level); }

GridCell cellOf(int level, double latitude, double longitude) {
  const int64_t col = gridIndex(eastOfAntimeridian(longitude), level);
  return {level, rowOf(level, latitude), std::clamp<int64_t>(col, 0, gridCols(level) - 1)};
}

std::vector<GridCell> childrenOf(const GridCell& cell) {
  std::vector<GridCell> out;
  if (cell.level >= kGridFinestLevel) return out;
  out.reserve(16);
  for (int64_t r = 0; r < 4; ++r) {
    for (int64_t c = 0; c < 4; ++c)
      out.push_back({cell.level + 1, cell.row * 4 + r, cell.col * 4 + c});
  }
  return out;
}

bool cellMeetsBox(const GridCell& cell, const GeoBox& box) {
  const double s = cellDegrees(cell.level);
  const double south = cellSouth(cell);
  if (south > box.latitude + box.halfLat + kSlackDegrees ||
      south + s < box.latitude - box.halfLat - kSlackDegrees) {
    return false;
  }
  if (box.halfLon + s / 2 + kSlackDegrees >= 180) return true;
  return longitudeGap(cellCentreLon(cell), box.longitude) <= box.halfLon + s / 2 + kSlackDegrees;
}

std::vector<GridCell> cellsCovering(const GeoBox& box, int level, size_t maxCells) {
  const int64_t r0 = rowOf(level, box.latitude - box.halfLat - kSlackDegrees);
  const int64_t r1 = rowOf(level, box.latitude + box.halfLat + kSlackDegrees);
  const int64_t cols = gridCols(level);
  int64_t c0 = 0, count = cols;
  if (box.halfLon + kSlackDegrees < 180) {
    // Column indexes before wrapping: the west edge may lie west of the antimeridian.
    const double centre = eastOfAntimeridian(box.longitude);
    c0 = gridIndex(centre - box.halfLon - kSlackDegrees, level);
    count = std::min(cols, gridIndex(centre + box.halfLon + kSlackDegrees, level) - c0 + 1);
  }
  const auto rows = static_cast<size_t>(r1 - r0 + 1);
  if (rows * static_cast<size_t>(count) > maxCells) return {};
  std::vector<GridCell> out;
  out.reserve(rows * static_cast<size_t>(count));
  for (int64_t r = r0; r <= r1; ++r) {
    for (int64_t i = 0; i < count; ++i) {
      out.push_back({level, r, ((c0 + i) % cols + cols) % cols});
    }
  }
  return out;
}

double haversineMetres(double lat1, double lon1, double lat2, double lon2) {
  const double dLat = (lat2 - lat1) * kRadians / 2;
  const double dLon = (lon2 - lon1) * kRadians / 2;
  const double s1 = std::sin(dLat), s2 = std::sin(dLon);
  const double a = s1 * s1 + std::cos(lat1 * kRadians) * std::cos(lat2 * kRadians) * s2 * s2;
  return 2 * kEarthRadiusMetres * std::asin(std::sqrt(std::clamp(a, 0.0, 1.0)));
}

double cellMinMetres(const GridCell& cell, double latitude, double longitude) {
  const double centreLat = cellSouth(cell) + cellDegrees(cell.level) / 2;
  const double d = haversineMetres(latitude, longitude, centreLat, cellCentreLon(cell));
  return std::max(0.0, d - cellRadiusMetres(cell));
}

double cellMaxMetres(const GridCell& cell, double latitude, double longitude) {
  const double centreLat = cellSouth(cell) + cellDegrees(cell.level) / 2;
  return haversineMetres(latitude, longitude, centreLat, cellCentreLon(cell)) +
         cellRadiusMetres(cell);
}

std::string cellText(const GridCell& cell) {
  return std::to_string(cell.level) + "/" + std::to_string(cell.row) + "/" +
         std::to_string(cell.col);
}

}  // namespace omra::server
