// Test models generated on demand by scripts/make_ssd_model.py into the build folder.
#pragma once

#include <string>

#include "omrakit/pixel_buffer.h"

namespace omra::testing {

// Path of a generated model (kind "small" or "full"; extra script arguments select variants),
// generated once per build folder. Empty when generation failed.
std::string generatedModel(const std::string& file, const std::string& args);
std::string smallModelPath();

// A width x height BGRA image whose left half is red and right half blue.
PixelBuffer halfRedHalfBlue(int width, int height);

}  // namespace omra::testing
