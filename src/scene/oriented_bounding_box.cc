#include "src/scene/oriented_bounding_box.h"

#include <algorithm>
#include <cmath>

namespace omra {

OrientedBoundingBox OrientedBoundingBox::fromAnchor(const std::array<float, 4>& row) {
  return {row[0], row[1], row[2], row[3], 300, 300};
}

OrientedBoundingBox OrientedBoundingBox::rotateLeft() const {
  return {xMin, 1 - yMin, xMax, 1 - yMax, 300, 300};
}

OrientedBoundingBox OrientedBoundingBox::rotateRight() const {
  return {1 - xMin, yMin, 1 - xMax, yMax, 300, 300};
}

Rect OrientedBoundingBox::convertToOrientation(double screenHeight, double screenWidth,
                                               phoneOrientation phone,
                                               supportedOrientations supported,
                                               int deviceReading) const {
  const double offset = std::abs(screenHeight - screenWidth) / 2;
  const double shortAxis = std::min(screenHeight, screenWidth);
  switch (correctOrientationConversion(phone, supported, deviceReading)) {
    case phoneOrientation::landscapeLeft:
      return convertToLandscapeLeft(offset, shortAxis);
    case phoneOrientation::landscapeRight:
      return convertToLandscapeRight(offset, shortAxis);
    case phoneOrientation::portrait:
      break;
  }
  return convertToPortrait(offset, shortAxis);
}

Rect OrientedBoundingBox::convertToPortrait(double offset, double s) const {
  const OrientedBoundingBox r = rotateRight();
  return {r.xMin * s, r.yMin * s + offset, (r.xMax - r.xMin) * s, (r.yMax - r.yMin) * s};
}

Rect OrientedBoundingBox::convertToLandscapeLeft(double offset, double s) const {
  return {xMin * s + offset, yMin * s, (xMax - xMin) * s, (yMax - yMin) * s};
}

Rect OrientedBoundingBox::convertToLandscapeRight(double offset, double s) const {
  // Flipped on both axes; the corners stay inverted.
  const double fxMin = 1 - xMin, fxMax = 1 - xMax, fyMin = 1 - yMin, fyMax = 1 - yMax;
  return {fxMin * s + offset, fyMin * s, (fxMax - fxMin) * s, (fyMax - fyMin) * s};
}

}  // namespace omra
