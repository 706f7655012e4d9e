#include "src/scene/pixel_buffers.h"

#include <cstdio>
#include <new>
#include <string>

#include "src/platform/vision/image_ops.h"

namespace omra {
namespace {

void report(Logger* logger, const std::string& message) {
  if (logger) {
    logger->print(message);
  } else {
    std::fprintf(stderr, "%s\n", message.c_str());
  }
}

bool wellFormed(const PixelBuffer& b) {
  return !b.empty() && b.bytesPerRow >= static_cast<size_t>(b.width) * 4 &&
         b.data->size() >= b.bytesPerRow * static_cast<size_t>(b.height);
}

// vImage's code for a region that does not fit the source.
constexpr int kRoiLargerThanInput = -21766;

}  // namespace

std::optional<PixelBuffer> createPixelBuffer(int width, int height, Logger* logger) {
  if (width <= 0 || height <= 0 || width > 1 << 15 || height > 1 << 15) {
    report(logger, "Error: could not create new pixel buffer");
    return std::nullopt;
  }
  PixelBuffer b;
  b.width = width;
  b.height = height;
  b.bytesPerRow = static_cast<size_t>(width) * 4;
  try {
    b.data = std::make_shared<std::vector<uint8_t>>(b.bytesPerRow * static_cast<size_t>(height));
  } catch (const std::bad_alloc&) {
    report(logger, "Error: could not create new pixel buffer");
    return std::nullopt;
  }
  return b;
}

std::optional<PixelBuffer> resizePixelBuffer(const PixelBuffer& source, int cropX, int cropY,
                                             int cropWidth, int cropHeight, int scaleWidth,
                                             int scaleHeight, Logger* logger) {
  if (!wellFormed(source)) {
    report(logger, "Error: could not get pixel buffer base address");
    return std::nullopt;
  }
  if (cropX < 0 || cropY < 0 || cropWidth <= 0 || cropHeight <= 0 ||
      cropX > source.width - cropWidth || cropY > source.height - cropHeight) {
    report(logger, "Error: " + std::to_string(kRoiLargerThanInput));
    return std::nullopt;
  }
  if (scaleWidth <= 0 || scaleHeight <= 0 || scaleWidth > 1 << 15 || scaleHeight > 1 << 15) {
    report(logger, "Error: out of memory");
    return std::nullopt;
  }
  PixelBuffer out;
  out.width = scaleWidth;
  out.height = scaleHeight;
  out.bytesPerRow = static_cast<size_t>(scaleWidth) * 4;
  try {
    out.data = std::make_shared<std::vector<uint8_t>>(out.bytesPerRow * scaleHeight);
  } catch (const std::bad_alloc&) {
    report(logger, "Error: out of memory");
    return std::nullopt;
  }
  const uint8_t* origin = source.row(cropY) + static_cast<size_t>(cropX) * 4;
  if (!scaleImage4(origin, cropWidth, cropHeight, source.bytesPerRow, out.data->data(), scaleWidth,
                   scaleHeight, out.bytesPerRow)) {
    report(logger, "Error: could not create resized pixel buffer");
    return std::nullopt;
  }
  return out;
}

std::optional<PixelBuffer> resizePixelBuffer(const PixelBuffer& source, int width, int height,
                                             Logger* logger) {
  return resizePixelBuffer(source, 0, 0, source.width, source.height, width, height, logger);
}

bool resizePixelBuffer(const PixelBuffer& source, int width, int height, PixelBuffer& output,
                       Logger* logger) {
  if (!wellFormed(source) || !wellFormed(output) || output.width != width ||
      output.height != height) {
    report(logger, "Error: could not create resized pixel buffer");
    return false;
  }
  return scaleImage4(source.row(0), source.width, source.height, source.bytesPerRow,
                     output.data->data(), width, height, output.bytesPerRow);
}

Image8 imageFromPixelBuffer(const PixelBuffer& b) {
  Image8 img;
  if (!wellFormed(b)) return img;
  img = {b.width, b.height, 4, std::vector<uint8_t>(static_cast<size_t>(b.width) * b.height * 4)};
  for (int y = 0; y < b.height; ++y) {
    const uint8_t* src = b.row(y);
    uint8_t* dst = &img.pixels[static_cast<size_t>(y) * b.width * 4];
    for (int x = 0; x < b.width; ++x, src += 4, dst += 4) {
      dst[0] = src[2], dst[1] = src[1], dst[2] = src[0], dst[3] = src[3];
    }
  }
  return img;
}

std::optional<PixelBuffer> pixelBufferFromImage(const Image8& img, Logger* logger) {
  if ((img.channels != 1 && img.channels != 4) ||
      img.pixels.size() < static_cast<size_t>(img.width) * img.height * img.channels) {
    report(logger, "Error: could not create new pixel buffer");
    return std::nullopt;
  }
  auto b = createPixelBuffer(img.width, img.height, logger);
  if (!b) return std::nullopt;
  for (int y = 0; y < img.height; ++y) {
    uint8_t* dst = b->row(y);
    for (int x = 0; x < img.width; ++x, dst += 4) {
      const uint8_t* p = &img.pixels[(static_cast<size_t>(y) * img.width + x) * img.channels];
      if (img.channels == 1) {
        dst[0] = dst[1] = dst[2] = p[0], dst[3] = 255;
      } else {
        dst[0] = p[2], dst[1] = p[1], dst[2] = p[0], dst[3] = p[3];
      }
    }
  }
  return b;
}

bool writeImagePng(const std::string& path, const Image8& image) {
  return writePng(path, image.width, image.height, image.channels, image.pixels);
}

bool writeImagePng(const std::string& path, const PixelBuffer& buffer) {
  return writePng(path, buffer);
}

}  // namespace omra
