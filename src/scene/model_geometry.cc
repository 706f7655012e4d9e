#include "src/scene/model_geometry.h"

#include <algorithm>

namespace omra {
namespace {

// Captured (x, y) -> upright (u, v), both normalised.
void turn(ImageOrientation o, double x, double y, double& u, double& v) {
  switch (o) {
    case ImageOrientation::kUpMirrored:
      u = 1 - x, v = y;
      return;
    case ImageOrientation::kDown:
      u = 1 - x, v = 1 - y;
      return;
    case ImageOrientation::kDownMirrored:
      u = x, v = 1 - y;
      return;
    case ImageOrientation::kLeftMirrored:
      u = y, v = x;
      return;
    case ImageOrientation::kRight:
      u = 1 - y, v = x;
      return;
    case ImageOrientation::kRightMirrored:
      u = 1 - y, v = 1 - x;
      return;
    case ImageOrientation::kLeft:
      u = y, v = 1 - x;
      return;
    default:
      u = x, v = y;
  }
}

}  // namespace

OrientedBoundingBox imageRectToModelBox(const Rect& r, ImageOrientation o, int imageWidth,
                                        int imageHeight) {
  const bool swapped = static_cast<uint32_t>(o) >= 5;
  const double wu = swapped ? imageHeight : imageWidth, hu = swapped ? imageWidth : imageHeight;
  const double s = std::max(1.0, std::min(wu, hu));
  double u0, v0, u1, v1;
  turn(o, r.minX(), r.minY(), u0, v0);
  turn(o, r.maxX(), r.maxY(), u1, v1);
  auto mx = [&](double u) { return (u * wu - (wu - s) / 2) / s; };
  auto my = [&](double v) { return (v * hu - (hu - s) / 2) / s; };
  return {my(std::min(v0, v1)),
          mx(std::min(u0, u1)),
          my(std::max(v0, v1)),
          mx(std::max(u0, u1)),
          300,
          300};
}

}  // namespace omra
