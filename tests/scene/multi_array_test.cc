#include "src/scene/multi_array.h"

#include <gtest/gtest.h>

#include "src/scene/pixel_buffers.h"

namespace omra {
namespace {

TEST(MultiArrayTest, SubscriptsFollowStridesThroughReshapeAndTranspose) {
  MultiArray<float> a({2, 3, 4}, 0.f);
  EXPECT_EQ(a.count(), 24);
  EXPECT_EQ(a.strides(), (std::vector<int64_t>{12, 4, 1}));
  for (int i = 0; i < 24; ++i) a.pointer()[i] = static_cast<float>(i);
  EXPECT_EQ(a(1, 2, 3), 23.f);
  EXPECT_EQ(a.at({1, 0, 2}), 14.f);

  const auto t = a.transposed({2, 0, 1});  // (4, 2, 3)
  EXPECT_EQ(t.shape(), (std::vector<int64_t>{4, 2, 3}));
  EXPECT_EQ(t(3, 1, 2), a(1, 2, 3));
  EXPECT_EQ(t(2, 0, 1), a(0, 1, 2));
  t(0, 1, 1) = -1.f;  // a view: writes reach the original
  EXPECT_EQ(a(1, 1, 0), -1.f);

  const auto r = a.reshaped({6, 4});
  EXPECT_EQ(r(5, 3), 23.f);
  EXPECT_EQ(r(1, 0), 4.f);
  EXPECT_DEATH(t.reshaped({24}), "contiguous");
  EXPECT_DEATH(a.reshaped({5, 5}), "count");
  EXPECT_DEATH(a(2, 0, 0), "out of range");
  EXPECT_DEATH(a(0, 0), "subscripts");
  EXPECT_DEATH(MultiArray<double>(a.array()), "element type");
}

TEST(MultiArrayTest, DataTypesUseThePlatformRawValues) {
  EXPECT_EQ(static_cast<int>(MultiArray<float>({1}, 0).array().dataType()), 65568);
  EXPECT_EQ(static_cast<int>(MultiArray<double>({1}, 0).array().dataType()), 65600);
  EXPECT_EQ(static_cast<int>(MultiArray<int32_t>({1}, 0).array().dataType()), 131104);
  MultiArray<int32_t> ints({2, 2}, 7);
  EXPECT_EQ(ints(1, 1), 7);
  EXPECT_EQ(ints.array().valueAt(3), 7.0);
}

TEST(MultiArrayTest, ImageConversionClampsAndChecksShapes) {
  MultiArray<double> rgb({3, 1, 2}, 0.0);
  rgb(0, 0, 0) = 1.0;   // (1 + 1) * 100 = 200
  rgb(1, 0, 0) = 5.0;   // clamped to 255
  rgb(2, 0, 0) = -3.0;  // clamped to 0
  rgb(0, 0, 1) = 0.5;   // 150
  const Image8 img = rgb.image(1.0, 100.0);
  ASSERT_EQ(img.channels, 4);
  EXPECT_EQ(img.width, 2);
  EXPECT_EQ(img.pixels, (std::vector<uint8_t>{200, 255, 0, 255, 150, 100, 100, 255}));
  const Image8 grey = rgb.image(2, 3.0, 10.0);
  EXPECT_EQ(grey.pixels, (std::vector<uint8_t>{0, 30}));
  EXPECT_EQ(rgb.reshaped({3, 2}).greyImage(0, 100).pixels.size(), 6u);

  EXPECT_DEATH(rgb.reshaped({6}).image(0, 1), "Expected a multi-array with 3 dimensions, got 1");
  EXPECT_DEATH(MultiArray<float>({2, 1, 1}, 0).image(0, 1),
               "Expected first dimension to have 3 channels, got 2");
  EXPECT_DEATH(rgb.image(3, 0, 1), "Channel must be between 0 and 2");
  EXPECT_DEATH(rgb.greyImage(0, 1), "Expected a multi-array with 2 dimensions, got 3");
}

TEST(PixelBuffersTest, CreateCropResizeAndRoundTrip) {
  auto buf = createPixelBuffer(8, 4);
  ASSERT_TRUE(buf);
  EXPECT_EQ(buf->bytesPerRow, 32u);
  // Right half white, left half black.
  for (int y = 0; y < 4; ++y)
    for (int x = 4; x < 8; ++x) std::fill_n(buf->row(y) + x * 4, 4, 255);
  const auto crop = resizePixelBuffer(*buf, 4, 0, 4, 4, 2, 2);
  ASSERT_TRUE(crop);
  EXPECT_EQ(crop->width, 2);
  EXPECT_EQ(crop->row(1)[4], 255);  // the crop is all white
  const auto whole = resizePixelBuffer(*buf, 2, 1);
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->row(0)[0], 0);
  EXPECT_EQ(whole->row(0)[4], 255);
  PixelBuffer out = *createPixelBuffer(4, 2);
  EXPECT_TRUE(resizePixelBuffer(*buf, 4, 2, out));
  EXPECT_EQ(out.row(1)[3 * 4], 255);
  EXPECT_FALSE(resizePixelBuffer(*buf, 5, 2, out));  // output of another size

  // Failures return nothing rather than reading outside the source.
  EXPECT_FALSE(createPixelBuffer(0, 4));
  EXPECT_FALSE(resizePixelBuffer(*buf, 6, 0, 4, 4, 2, 2));
  EXPECT_FALSE(resizePixelBuffer(*buf, 0, 0, 4, 4, 0, 2));
  EXPECT_FALSE(resizePixelBuffer(PixelBuffer{}, 2, 2));

  const Image8 rgba = imageFromPixelBuffer(*buf);
  const auto back = pixelBufferFromImage(rgba);
  ASSERT_TRUE(back);
  EXPECT_TRUE(std::equal(back->data->begin(), back->data->end(), buf->data->begin()));
}

}  // namespace
}  // namespace omra
