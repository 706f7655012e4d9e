// A camera image as the kit receives it: 8-bit BGRA, rows padded to bytesPerRow.
//
// Value type sharing its bytes: copies are cheap and see the same pixels. Not thread-safe to write
// while another thread reads; the kit only reads images it is handed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace omra {

struct PixelBuffer {
  static constexpr uint32_t kFormatBGRA = 1111970369;  // '32BGRA' as a four-character code.

  int width = 0;
  int height = 0;
  size_t bytesPerRow = 0;
  std::shared_ptr<std::vector<uint8_t>> data;

  bool empty() const { return width <= 0 || height <= 0 || !data; }
  const uint8_t* row(int y) const { return data->data() + static_cast<size_t>(y) * bytesPerRow; }
  uint8_t* row(int y) { return data->data() + static_cast<size_t>(y) * bytesPerRow; }
};

}  // namespace omra
