#include "src/platform/vision/image_ops.h"

#include <png.h>

#include <algorithm>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace omra {

bool scaleImage4(const uint8_t* src, int srcWidth, int srcHeight, size_t srcStride, uint8_t* dst,
                 int dstWidth, int dstHeight, size_t dstStride) {
  if (!src || !dst || srcWidth <= 0 || srcHeight <= 0 || dstWidth <= 0 || dstHeight <= 0) {
    return false;
  }
  const cv::Mat in(srcHeight, srcWidth, CV_8UC4, const_cast<uint8_t*>(src), srcStride);
  cv::Mat out(dstHeight, dstWidth, CV_8UC4, dst, dstStride);
  cv::resize(in, out, out.size(), 0, 0, cv::INTER_LINEAR);
  return out.data == dst;  // resize wrote in place
}

namespace {

// libpng's simplified writer: 8-bit rows, top to bottom. (OpenCV's codecs would pull in GDAL and
// a hundred more libraries only for this.)
bool writeRows(const std::string& path, int width, int height, uint32_t format, const void* rows,
               ptrdiff_t stride) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<uint32_t>(width);
  image.height = static_cast<uint32_t>(height);
  image.format = format;
  const bool ok = png_image_write_to_file(&image, path.c_str(), 0, rows,
                                          static_cast<png_int_32>(stride), nullptr) != 0;
  png_image_free(&image);
  return ok;
}

}  // namespace

bool writePng(const std::string& path, int width, int height, int channels,
              const std::vector<uint8_t>& pixels) {
  if (width <= 0 || height <= 0 || (channels != 1 && channels != 3 && channels != 4) ||
      pixels.size() < static_cast<size_t>(width) * height * channels) {
    return false;
  }
  const uint32_t format = channels == 1   ? PNG_FORMAT_GRAY
                          : channels == 3 ? PNG_FORMAT_RGB
                                          : PNG_FORMAT_RGBA;
  return writeRows(path, width, height, format, pixels.data(),
                   static_cast<ptrdiff_t>(width) * channels);
}

bool writePng(const std::string& path, const PixelBuffer& image) {
  if (image.empty() || image.data->size() < image.bytesPerRow * static_cast<size_t>(image.height)) {
    return false;
  }
  return writeRows(path, image.width, image.height, PNG_FORMAT_BGRA, image.row(0),
                   static_cast<ptrdiff_t>(image.bytesPerRow));
}

namespace {

// Turns an image upright for its EXIF orientation tag.
cv::Mat upright(const cv::Mat& in, ImageOrientation orientation) {
  cv::Mat up;
  switch (orientation) {
    case ImageOrientation::kUpMirrored:
      cv::flip(in, up, 1);
      break;
    case ImageOrientation::kDown:
      cv::rotate(in, up, cv::ROTATE_180);
      break;
    case ImageOrientation::kDownMirrored:
      cv::flip(in, up, 0);
      break;
    case ImageOrientation::kLeftMirrored:
      cv::transpose(in, up);
      break;
    case ImageOrientation::kRight:
      cv::rotate(in, up, cv::ROTATE_90_CLOCKWISE);
      break;
    case ImageOrientation::kRightMirrored:
      cv::flip(in, up, -1);
      cv::transpose(up, up);
      break;
    case ImageOrientation::kLeft:
      cv::rotate(in, up, cv::ROTATE_90_COUNTERCLOCKWISE);
      break;
    default:
      up = in;
  }
  return up;
}

}  // namespace

std::vector<uint8_t> modelInputRgb(const PixelBuffer& image, ImageOrientation orientation,
                                   CropAndScale crop, int size) {
  if (image.empty() || size <= 0 || image.bytesPerRow < static_cast<size_t>(image.width) * 4 ||
      image.data->size() < image.bytesPerRow * static_cast<size_t>(image.height)) {
    return {};
  }
  const cv::Mat bgra(image.height, image.width, CV_8UC4, const_cast<uint8_t*>(image.row(0)),
                     image.bytesPerRow);
  // Crop and scale first, on the captured image, then turn the small result: quarter and half
  // turns and mirrors keep the centre square and commute with scaling to a square or a fit.
  const int w = image.width, h = image.height;
  cv::Mat small;
  if (crop == CropAndScale::kCenterCrop) {
    const int s = std::min(w, h);
    cv::resize(bgra(cv::Rect((w - s) / 2, (h - s) / 2, s, s)), small, cv::Size(size, size), 0, 0,
               cv::INTER_LINEAR);
  } else if (crop == CropAndScale::kScaleFit) {
    const double f = static_cast<double>(size) / std::max(w, h);
    cv::resize(bgra, small,
               cv::Size(std::max(1, static_cast<int>(w * f)), std::max(1, static_cast<int>(h * f))),
               0, 0, cv::INTER_LINEAR);
  } else {
    cv::resize(bgra, small, cv::Size(size, size), 0, 0, cv::INTER_LINEAR);
  }
  cv::Mat rgb;
  cv::cvtColor(small, rgb, cv::COLOR_BGRA2RGB);
  cv::Mat up = upright(rgb, orientation);
  if (up.cols != size || up.rows != size) {
    // Fit: the whole image inside the square, centred, black bars.
    cv::Mat square = cv::Mat::zeros(size, size, CV_8UC3);
    up.copyTo(square(cv::Rect((size - up.cols) / 2, (size - up.rows) / 2, up.cols, up.rows)));
    up = square;
  }
  if (!up.isContinuous()) up = up.clone();
  return std::vector<uint8_t>(up.data, up.data + up.total() * 3);
}

}  // namespace omra
