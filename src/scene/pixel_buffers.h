// Creating and resizing BGRA pixel buffers, and writing images for inspection. Pure functions;
// thread-safe. Failures print the platform's messages to logger (when given) and return nothing.
#pragma once

#include <optional>
#include <string>

#include "omrakit/pixel_buffer.h"
#include "omrakit/platform/logger.h"
#include "src/scene/multi_array.h"

namespace omra {

// A zeroed width x height BGRA buffer.
std::optional<PixelBuffer> createPixelBuffer(int width, int height, Logger* logger = nullptr);
// The region (cropX, cropY, cropWidth, cropHeight) of source scaled to scaleWidth x scaleHeight.
std::optional<PixelBuffer> resizePixelBuffer(const PixelBuffer& source, int cropX, int cropY,
                                             int cropWidth, int cropHeight, int scaleWidth,
                                             int scaleHeight, Logger* logger = nullptr);
// The whole of source scaled to width x height.
std::optional<PixelBuffer> resizePixelBuffer(const PixelBuffer& source, int width, int height,
                                             Logger* logger = nullptr);
// The whole of source scaled into output (already allocated, of the requested size).
bool resizePixelBuffer(const PixelBuffer& source, int width, int height, PixelBuffer& output,
                       Logger* logger = nullptr);

// The buffer's pixels as packed RGBA (alpha kept from the buffer).
Image8 imageFromPixelBuffer(const PixelBuffer& buffer);
// Draws an RGBA or grey image into a new BGRA buffer of the same size.
std::optional<PixelBuffer> pixelBufferFromImage(const Image8& image, Logger* logger = nullptr);
// PNG output for inspection; false on failure.
bool writeImagePng(const std::string& path, const Image8& image);
bool writeImagePng(const std::string& path, const PixelBuffer& buffer);

}  // namespace omra
