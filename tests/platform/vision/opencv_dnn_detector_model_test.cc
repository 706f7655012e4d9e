#include "src/platform/vision/opencv_dnn_detector_model.h"

#include <gtest/gtest.h>
#include <png.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "src/platform/vision/image_ops.h"
#include "src/scene/multi_array.h"
#include "src/scene/ssd_anchors.h"
#include "src/scene/ssd_post_processor.h"
#include "tests/platform/vision/model_testutil.h"

namespace omra {
namespace {

class OpenCvDnnDetectorModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = testing::smallModelPath();
    ASSERT_FALSE(path_.empty()) << "could not generate the test model";
    std::string error;
    model_ = OpenCvDnnDetectorModel::load(path_, {}, &error);
    ASSERT_TRUE(model_) << error;
  }
  std::string path_;
  std::shared_ptr<OpenCvDnnDetectorModel> model_;
};

TEST_F(OpenCvDnnDetectorModelTest, RunsTheModelAndDecodesItsDetections) {
  PixelBuffer grey = testing::halfRedHalfBlue(400, 300);
  std::fill(grey.data->begin(), grey.data->end(), 128);
  const DetectorResult r = model_->run(grey, ImageOrientation::kUp, CropAndScale::kCenterCrop);
  ASSERT_TRUE(r.ok()) << r.error;
  ASSERT_EQ(r.outputs.size(), 4u);
  EXPECT_EQ(r.outputs[1].name, "concat_1__0");
  EXPECT_EQ(r.outputs[2].name, "concat__0");
  EXPECT_EQ(r.outputs[3].tensor.shape(), (std::vector<int64_t>{8, 5, 5}));  // batch dropped
  EXPECT_EQ(r.outputs[0].tensor.shape(), (std::vector<int64_t>{3, 2, 2}));

  // Scores are the model's sigmoid of 2 + mean red (scaled to -1..1) for chair at anchor 500.
  const double red = 128 / 127.5 - 1;
  SSDPostProcessor p(1917, 90, 0.01);
  const auto preds = p.process(r.outputs[2].tensor, r.outputs[1].tensor);
  ASSERT_EQ(preds.size(), 2u);
  EXPECT_EQ(preds[0].detectedClass, 62);
  EXPECT_EQ(preds[0].index, 500);
  EXPECT_NEAR(preds[0].score, 1 / (1 + std::exp(-(2 + red))), 1e-5);
  EXPECT_EQ(preds[1].detectedClass, 72);
  EXPECT_EQ(preds[1].index, 900);
  // Encodings: centre moved down a tenth of the anchor height, both sides scaled by sqrt 2.
  const auto a = OrientedBoundingBox::fromAnchor(SSDAnchors::ssdAnchors()[500]);
  const auto box = preds[0].finalPrediction();
  EXPECT_NEAR((box.yMin + box.yMax) / 2, (a.yMin + a.yMax) / 2 + (a.yMax - a.yMin) / 10, 1e-6);
  EXPECT_NEAR(box.xMax - box.xMin, (a.xMax - a.xMin) * std::sqrt(2.0), 1e-6);
}

// The activation is a 5x5 map of pooled colour (channel 0 from red). The captured image's red left
// half must end up on the side the orientation turns it to; the middle of each other side is half
// red, half blue, which pools to neutral.
struct Layout {
  ImageOrientation orientation;
  bool left, right, top, bottom;  // which side's middle cell is red
};

TEST_F(OpenCvDnnDetectorModelTest, OrientationAndCentreCropReachTheModel) {
  const PixelBuffer img = testing::halfRedHalfBlue(400, 300);
  for (const Layout& l :
       std::vector<Layout>{{ImageOrientation::kUp, true, false, false, false},
                           {ImageOrientation::kDown, false, true, false, false},
                           {ImageOrientation::kRight, false, false, true, false},
                           {ImageOrientation::kLeft, false, false, false, true}}) {
    const DetectorResult r = model_->run(img, l.orientation, CropAndScale::kCenterCrop);
    ASSERT_TRUE(r.ok()) << r.error;
    const MultiArray<float> act(r.outputs[3].tensor);
    auto isRed = [&](int y, int x) { return act(0, y, x) > 1.5f; };
    const int o = static_cast<int>(l.orientation);
    EXPECT_EQ(isRed(2, 0), l.left) << o;
    EXPECT_EQ(isRed(2, 4), l.right) << o;
    EXPECT_EQ(isRed(0, 2), l.top) << o;
    EXPECT_EQ(isRed(4, 2), l.bottom) << o;
  }
}

TEST(OpenCvDnnDetectorModelLoadTest, RefusesBadModelsWithTheReason) {
  // The load error, or "loaded".
  const auto refusal = [](const std::string& path, OpenCvDnnOptions options = {}) {
    std::string error;
    return OpenCvDnnDetectorModel::load(path, options, &error) ? "loaded" : error;
  };
  const std::string small = testing::smallModelPath();
  ASSERT_FALSE(small.empty());
  const std::string garbage = std::string(OMRA_BINARY_DIR) + "/test_models/garbage.onnx";
  std::ofstream(garbage) << "not a model";
  const std::string noScores =
      testing::generatedModel("no_scores.onnx", "--kind small --drop-output concat_1__0");
  ASSERT_FALSE(noScores.empty());
  EXPECT_EQ(refusal("/nonexistent/model.onnx").rfind("Can't load VisionML model: ", 0), 0u);
  EXPECT_EQ(refusal(garbage).rfind("Can't load VisionML model: ", 0), 0u);
  EXPECT_NE(refusal(noScores).find("concat_1__0"), std::string::npos);
  // A model whose outputs do not have the sizes the decoder reads.
  EXPECT_NE(refusal(small, {.numAnchors = 1000}).find("expected"), std::string::npos);
}

TEST(ImageOpsTest, Scaling) {
  const PixelBuffer img = testing::halfRedHalfBlue(40, 20);
  std::vector<uint8_t> out(10 * 5 * 4);
  ASSERT_TRUE(scaleImage4(img.row(0), 40, 20, img.bytesPerRow, out.data(), 10, 5, 40));
  EXPECT_EQ(out[2], 255);          // first pixel red (BGRA)
  EXPECT_EQ(out[9 * 4 + 0], 255);  // last pixel of the row blue
  EXPECT_FALSE(scaleImage4(img.row(0), 0, 20, img.bytesPerRow, out.data(), 10, 5, 40));
}

// What each writer puts in the file, read back as RGBA: channel order, rows and padding; and what
// it refuses.
TEST(ImageOpsTest, PngHoldsThePixelsInOrder) {
  auto readRgba = [](const std::string& path, uint32_t* width, uint32_t* height) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    std::vector<uint8_t> rgba;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return rgba;
    image.format = PNG_FORMAT_RGBA;
    rgba.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, rgba.data(), 0, nullptr)) rgba.clear();
    *width = image.width;
    *height = image.height;
    return rgba;
  };
  std::filesystem::create_directories(std::string(OMRA_BINARY_DIR) + "/test_models");
  const std::string path = std::string(OMRA_BINARY_DIR) + "/test_models/order.png";
  struct Case {
    const char* name;
    std::function<bool()> write;
    std::vector<uint8_t> rgba;  // expected, 2 x 2
  };
  PixelBuffer bgra;  // 2 x 2 with 4 bytes of row padding: blue, green / red, white
  bgra.width = bgra.height = 2;
  bgra.bytesPerRow = 12;
  bgra.data = std::make_shared<std::vector<uint8_t>>(std::vector<uint8_t>{
      255, 0, 0, 255, 0, 255, 0, 255, 9, 9, 9, 9, 0, 0, 255, 255, 255, 255, 255, 255, 9, 9, 9, 9});
  const Case cases[] = {
      {"rgb",
       [&] {
         return writePng(path, 2, 2, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
       },
       {1, 2, 3, 255, 4, 5, 6, 255, 7, 8, 9, 255, 10, 11, 12, 255}},
      {"gray",
       [&] {
         return writePng(path, 2, 2, 1, {0, 50, 100, 255});
       },
       {0, 0, 0, 255, 50, 50, 50, 255, 100, 100, 100, 255, 255, 255, 255, 255}},
      {"bgra buffer",
       [&] { return writePng(path, bgra); },
       {0, 0, 255, 255, 0, 255, 0, 255, 255, 0, 0, 255, 255, 255, 255, 255}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(c.write());
    uint32_t width = 0, height = 0;
    EXPECT_EQ(readRgba(path, &width, &height), c.rgba);
    EXPECT_EQ(width, 2u);
    EXPECT_EQ(height, 2u);
  }
  EXPECT_FALSE(writePng("/nonexistent/dir/x.png", bgra));
  EXPECT_FALSE(writePng(path, 10, 10, 2, std::vector<uint8_t>(200)));
}

}  // namespace
}  // namespace omra
