// Detector outputs as a host's model runtime may hand them over: any shape, strides, offset and
// storage size. The bytes describe the class scores and box encodings; the kit must refuse what it
// cannot read and never read outside a tensor's storage (AddressSanitizer watches the reads).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "src/platform/asio_dispatcher.h"
#include "src/platform/memory_logger.h"
#include "src/platform/vision/scripted_detector_model.h"
#include "src/scene/object_detection_2d.h"
#include "src/scene/ssd_anchors.h"

namespace {

// Takes bytes from the front of the input; zeros once it runs out.
struct Bytes {
  const uint8_t* p;
  size_t n;
  uint8_t next() {
    if (n == 0) return 0;
    --n;
    return *p++;
  }
  int64_t small() { return static_cast<int8_t>(next()); }
};

constexpr int64_t kN = omra::SSDAnchors::kNumAnchors;

// A tensor near the expected one: the right sizes most of the time, bent by the input.
omra::Tensor tensorFrom(Bytes& b, int64_t rows) {
  const uint8_t mode = b.next();
  std::vector<int64_t> shape;
  switch (mode % 6) {
    case 0:
      shape = {rows, kN};
      break;
    case 1:
      shape = {kN, rows};
      break;
    case 2:
      shape = {1, rows, kN};
      break;
    case 3:
      shape = {1, kN, rows};
      break;
    case 4:
      shape = {rows * kN};
      break;
    default: {
      const int dims = b.next() % 4;
      for (int i = 0; i < dims; ++i) shape.push_back(b.small() * (b.next() % 2 ? kN : 1));
    }
  }
  int64_t count = 1;
  for (int64_t s : shape) {
    if (s > 0 && __builtin_mul_overflow(count, s, &count)) count = INT64_MAX;
  }
  std::vector<int64_t> strides(shape.size(), 1);
  for (size_t d = shape.size(); d-- > 1;)
    strides[d - 1] = strides[d] * std::max<int64_t>(shape[d], 1);
  if (b.next() % 4 == 0 && !strides.empty()) strides[b.next() % strides.size()] += b.small();
  const int64_t offset = b.next() % 8 == 0 ? b.small() : 0;
  const int64_t slack = b.small();
  // Storage for at most a few full outputs: larger shapes simply do not fit it.
  const int64_t wanted = std::min<int64_t>(count, 4 * 91 * kN) + slack;
  const size_t floats = static_cast<size_t>(std::max<int64_t>(wanted, 0));
  auto storage = std::make_shared<std::vector<std::byte>>(floats * sizeof(float));
  for (size_t i = 0; i < storage->size(); ++i) (*storage)[i] = std::byte{b.next()};
  return omra::Tensor(std::move(shape), std::move(strides), omra::TensorDataType::kFloat32,
                      std::move(storage), offset);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One detector for the whole run; its model hands back whatever this input describes.
  static omra::DetectorResult* current = new omra::DetectorResult();
  static auto* dispatcher = new omra::AsioDispatcher(1);
  static auto* logger = new omra::MemoryLogger();
  static auto* detector = new omra::ObjectDetection2D(
      800, 600,
      std::make_shared<omra::ScriptedDetectorModel>([](const omra::PixelBuffer&,
                                                       omra::ImageOrientation,
                                                       omra::CropAndScale) { return *current; }),
      *dispatcher, std::shared_ptr<omra::Logger>(logger, [](omra::Logger*) {}));
  static const omra::PixelBuffer image{8, 6, 32, std::make_shared<std::vector<uint8_t>>(32 * 6)};

  Bytes b{data, size};
  omra::Tensor scores = tensorFrom(b, 91);
  omra::Tensor boxes = tensorFrom(b, 4);
  omra::Tensor activation = tensorFrom(b, 2);
  // Straight through the checks, then the whole detection step.
  if (scores.fitsStorage()) {
    for (int64_t i = 0; i < scores.count(); i += 97) (void)scores.valueAt(i);
  }
  *current = omra::ScriptedDetectorModel::outputs(scores, boxes, activation);
  detector->classifyImage(
      image, [](const std::vector<omra::Prediction>&, std::shared_ptr<const omra::Activation>) {},
      omra::phoneOrientation::portrait);
  logger->clear();
  return 0;
}
