// A corner box in normalised model-image units (0..1) and its conversion to screen rectangles.
//
// Value type. The rotations deliberately leave one axis inverted (after rotateLeft, xMin > xMax);
// the screen conversions keep the differences as they come and never re-sort the corners.
#pragma once

#include <array>

#include "src/foundation/orientation.h"
#include "src/scene/rect.h"

namespace omra {

struct OrientedBoundingBox {
  double yMin = 0, xMin = 0, yMax = 0, xMax = 0;
  double imgHeight = 300, imgWidth = 300;

  // Box from an anchor row (yMin, xMin, yMax, xMax), 300 x 300.
  static OrientedBoundingBox fromAnchor(const std::array<float, 4>& row);

  OrientedBoundingBox rotateLeft() const;
  OrientedBoundingBox rotateRight() const;

  // The box on the screen for the effective orientation: correctOrientationConversion of
  // (phone, supported, deviceReading) picks the conversion below.
  Rect convertToOrientation(double screenHeight, double screenWidth, phoneOrientation phone,
                            supportedOrientations supported, int deviceReading) const;
  // The portrait conversion undoes the portrait request orientation (right) with rotateRight, so
  // the rectangle keeps the captured image's axes; the offset goes on y.
  Rect convertToPortrait(double offset, double shortAxisLength) const;
  // Landscape left is the captured image as it is; the offset goes on x.
  Rect convertToLandscapeLeft(double offset, double shortAxisLength) const;
  // Landscape right was submitted turned by 180 degrees: flip both axes back; offset on x.
  Rect convertToLandscapeRight(double offset, double shortAxisLength) const;

  bool operator==(const OrientedBoundingBox&) const = default;
};

}  // namespace omra
