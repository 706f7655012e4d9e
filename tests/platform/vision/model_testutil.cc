#include "tests/platform/vision/model_testutil.h"

#include <cstdlib>
#include <filesystem>

namespace omra::testing {

std::string generatedModel(const std::string& file, const std::string& args) {
  const std::filesystem::path dir = std::filesystem::path(OMRA_BINARY_DIR) / "test_models";
  const std::filesystem::path path = dir / file;
  if (std::filesystem::exists(path)) return path.string();
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  const std::string cmd = "/usr/bin/python3 " + std::string(OMRA_SOURCE_DIR) +
                          "/scripts/make_ssd_model.py " + args + " '" + path.string() + "'";
  if (std::system(cmd.c_str()) != 0 || !std::filesystem::exists(path)) return "";
  return path.string();
}

std::string smallModelPath() { return generatedModel("small.onnx", "--kind small"); }

PixelBuffer halfRedHalfBlue(int width, int height) {
  PixelBuffer b;
  b.width = width;
  b.height = height;
  b.bytesPerRow = static_cast<size_t>(width) * 4 + 16;  // padded rows, as cameras deliver
  b.data = std::make_shared<std::vector<uint8_t>>(b.bytesPerRow * height, 0);
  for (int y = 0; y < height; ++y) {
    uint8_t* row = b.row(y);
    for (int x = 0; x < width; ++x) {
      const bool red = x < width / 2;
      row[x * 4 + 0] = red ? 0 : 255;  // B
      row[x * 4 + 1] = 0;
      row[x * 4 + 2] = red ? 255 : 0;  // R
      row[x * 4 + 3] = 255;
    }
  }
  return b;
}

}  // namespace omra::testing

// OpenCV's network runs on TBB threads and its image codecs load GDAL; neither library is built
// for ThreadSanitizer, so what it sees inside them is not ours to judge.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libopencv_dnn.so\n"
         "race:libopencv_core.so\n"
         "race:libtbb.so\n"
         "deadlock:libgdal.so\n"
         "called_from_lib:libgdal.so\n"
         "called_from_lib:libtbb.so\n";
}
