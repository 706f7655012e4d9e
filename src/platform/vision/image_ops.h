// Image scaling, orientation and PNG output on OpenCV, behind plain byte-buffer functions so that
// kit logic never sees OpenCV. Pure functions; thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "omrakit/pixel_buffer.h"
#include "omrakit/platform/detector_model.h"

namespace omra {

// Bilinear scaling of a 4-channel 8-bit image (srcStride and dstStride in bytes). False when a size
// is not positive.
bool scaleImage4(const uint8_t* src, int srcWidth, int srcHeight, size_t srcStride, uint8_t* dst,
                 int dstWidth, int dstHeight, size_t dstStride);

// Writes 8-bit pixels as PNG: channels 1 (grey), 3 (RGB), 4 (RGBA) packed rows. False on failure.
bool writePng(const std::string& path, int width, int height, int channels,
              const std::vector<uint8_t>& pixels);
// Writes a BGRA pixel buffer as PNG.
bool writePng(const std::string& path, const PixelBuffer& image);

// The model's view of a camera image: turned upright by orientation, fitted to size x size by crop,
// as packed RGB bytes (size * size * 3). Empty on an empty image.
std::vector<uint8_t> modelInputRgb(const PixelBuffer& image, ImageOrientation orientation,
                                   CropAndScale crop, int size);

}  // namespace omra
