// Detector boxes must lead the hit tests back to the part of the camera image they came from, for
// every orientation: the model sees the image turned and cropped, the screen conversion turns the
// box back, and the normalisation undoes the crop.
#include <gtest/gtest.h>

#include "src/platform/vision/image_ops.h"
#include "src/scene/model_geometry.h"
#include "src/scene/object_3d_tracker.h"
#include "src/scene/object_detection_2d.h"

namespace omra {
namespace {

TEST(DetectionGeometryTest, ModelBoxesMapBackToTheCapturedImage) {
  const int w = 400, h = 300;
  PixelBuffer img;
  img.width = w, img.height = h, img.bytesPerRow = w * 4;
  img.data = std::make_shared<std::vector<uint8_t>>(w * h * 4, 0);
  const int x0 = 220, x1 = 260, y0 = 100, y1 = 160;  // a white patch
  for (int y = y0; y < y1; ++y) std::fill_n(img.row(y) + x0 * 4, (x1 - x0) * 4, 255);

  for (phoneOrientation o : {phoneOrientation::landscapeLeft, phoneOrientation::landscapeRight,
                             phoneOrientation::portrait}) {
    const auto rgb = modelInputRgb(img, ObjectDetection2D::requestOrientation(o),
                                   CropAndScale::kCenterCrop, 300);
    ASSERT_EQ(rgb.size(), 300u * 300 * 3);
    int minX = 300, maxX = -1, minY = 300, maxY = -1;
    for (int y = 0; y < 300; ++y)
      for (int x = 0; x < 300; ++x)
        if (rgb[(y * 300 + x) * 3] > 127) {
          minX = std::min(minX, x), maxX = std::max(maxX, x);
          minY = std::min(minY, y), maxY = std::max(maxY, y);
        }
    ASSERT_GE(maxX, 0);
    const OrientedBoundingBox box{minY / 300.0,       minX / 300.0, (maxY + 1) / 300.0,
                                  (maxX + 1) / 300.0, 300,          300};
    const Rect screen = box.convertToOrientation(
        800, 600, o, supportedOrientations::landscapeLeftAndRight, static_cast<int>(o));
    const Rect back = Object3DTracker::convertViewCoordToNormalizedImage(screen, o, 800, 600, w, h);
    const double px = 1.5 / w, py = 1.5 / h;
    EXPECT_NEAR(back.minX(), double(x0) / w, px) << static_cast<int>(o);
    EXPECT_NEAR(back.maxX(), double(x1) / w, px) << static_cast<int>(o);
    EXPECT_NEAR(back.minY(), double(y0) / h, py) << static_cast<int>(o);
    EXPECT_NEAR(back.maxY(), double(y1) / h, py) << static_cast<int>(o);
  }
}

TEST(DetectionGeometryTest, ScreenRectanglesKeepInvertedCorners) {
  const OrientedBoundingBox b{0.1, 0.2, 0.3, 0.6, 300, 300};
  const auto l = b.rotateLeft();
  EXPECT_GT(l.xMin, l.xMax);
  EXPECT_DOUBLE_EQ(l.yMin, 0.2);
  const auto r = b.rotateRight();
  EXPECT_DOUBLE_EQ(r.yMin, 0.8);
  EXPECT_DOUBLE_EQ(r.xMin, 0.1);
  // Portrait 600 x 800 points: short axis 600, offset 100 on y.
  const Rect p = b.convertToPortrait(100, 600);
  EXPECT_DOUBLE_EQ(p.x, 0.1 * 600);
  EXPECT_DOUBLE_EQ(p.y, 0.8 * 600 + 100);
  EXPECT_LT(p.height, 0);  // not re-sorted
  const Rect ll = b.convertToLandscapeLeft(100, 600);
  EXPECT_DOUBLE_EQ(ll.x, 0.2 * 600 + 100);
  // An application without landscape support always gets the portrait conversion.
  EXPECT_EQ(b.convertToOrientation(800, 600, phoneOrientation::landscapeLeft,
                                   supportedOrientations::portrait, 3),
            p);
}

}  // namespace
}  // namespace omra
