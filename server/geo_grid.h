// The nested latitude/longitude grid behind the nearby-maps index, and the great-circle distances
// the search orders by. Level 0 cells are 45 degrees square; each level splits a cell into 4 x 4.
// Plain functions of values; thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace omra::server {

inline constexpr int kGridLevels = 9;  // 45 degrees down to about 75 m of latitude
inline constexpr int kGridFinestLevel = kGridLevels - 1;
inline constexpr double kEarthRadiusMetres = 6371008.8;

struct GridCell {
  int level = 0;
  int64_t row = 0;  // from the south pole
  int64_t col = 0;  // from the antimeridian, eastwards
  bool operator==(const GridCell&) const = default;
};

// The search box: latitude within halfLat of the centre, longitude within halfLon of it (folded
// across the antimeridian). Edges belong to the box.
struct GeoBox {
  double latitude = 0, longitude = 0, halfLat = 0, halfLon = 0;
  bool contains(double lat, double lon) const;
};

double cellDegrees(int level);
int64_t gridRows(int level);
int64_t gridCols(int level);

// The cell of the point at that level; latitude 90 falls in the top row, longitude 180 with -180.
GridCell cellOf(int level, double latitude, double longitude);
// The 16 cells of the next level inside cell (none for the finest level).
std::vector<GridCell> childrenOf(const GridCell& cell);
bool cellMeetsBox(const GridCell& cell, const GeoBox& box);
// The cells of that level meeting the box, or nothing when there are more than maxCells.
std::vector<GridCell> cellsCovering(const GeoBox& box, int level, size_t maxCells);

// Haversine distance in metres.
double haversineMetres(double lat1, double lon1, double lat2, double lon2);
// Bounds on the distance from the point to anything in the cell: never above the nearest,
// never below the farthest.
double cellMinMetres(const GridCell& cell, double latitude, double longitude);
double cellMaxMetres(const GridCell& cell, double latitude, double longitude);

// The cell as index-key text: "level/row/col".
std::string cellText(const GridCell& cell);

}  // namespace omra::server
