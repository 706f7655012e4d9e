// The detector-model boundary: a host plugs in its own model runtime by implementing DetectorModel.
//
// Tensor is a value type sharing its elements (copies see the same storage), like PixelBuffer. It
// is not thread-safe to write while another thread reads; the kit only reads tensors it is handed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "omrakit/pixel_buffer.h"

namespace omra {

// Element types, with the raw values the phone platform's multi-array uses.
enum class TensorDataType : int32_t { kFloat32 = 65568, kFloat64 = 65600, kInt32 = 131104 };

size_t tensorElementSize(TensorDataType type);

// An n-dimensional array: shape, element strides and typed storage.
class Tensor {
 public:
  Tensor() = default;
  // Zero-filled, row-major (last dimension fastest). Negative sizes count as 0.
  Tensor(std::vector<int64_t> shape, TensorDataType type);
  // A view over existing storage; strides and offset count elements. The kit checks fitsStorage()
  // on every tensor a model hands it and refuses those that do not fit.
  Tensor(std::vector<int64_t> shape, std::vector<int64_t> strides, TensorDataType type,
         std::shared_ptr<std::vector<std::byte>> storage, int64_t offset = 0);

  static Tensor fromFloats(std::vector<int64_t> shape, const std::vector<float>& values);
  static Tensor fromDoubles(std::vector<int64_t> shape, const std::vector<double>& values);
  static Tensor fromInts(std::vector<int64_t> shape, const std::vector<int32_t>& values);

  const std::vector<int64_t>& shape() const { return shape_; }
  const std::vector<int64_t>& strides() const { return strides_; }
  TensorDataType dataType() const { return type_; }
  int64_t count() const;  // product of the shape; 0 for an empty tensor
  bool empty() const { return !storage_ || count() == 0; }
  bool isContiguous() const;  // row-major with no gaps
  // Whether every element the shape, strides and offset address lies inside the storage (no size
  // is negative, nothing overflows). An empty tensor fits.
  bool fitsStorage() const;

  // First element of the view (the element at all-zero subscripts); null when empty.
  const void* data() const;
  void* data();
  const std::shared_ptr<std::vector<std::byte>>& storage() const { return storage_; }
  int64_t offset() const { return offset_; }

  // Element number i in row-major order over the shape, as a double; i must be in [0, count()).
  double valueAt(int64_t i) const;
  // All elements in row-major order as floats (a copy).
  std::vector<float> toFloats() const;

 private:
  std::vector<int64_t> shape_;
  std::vector<int64_t> strides_;
  TensorDataType type_ = TensorDataType::kFloat32;
  std::shared_ptr<std::vector<std::byte>> storage_;
  int64_t offset_ = 0;
};

struct NamedTensor {
  std::string name;
  Tensor tensor;
};

// Orientation of the image handed to the model, as EXIF tags 1..8 (what the image must be turned by
// to stand upright before the model sees it).
enum class ImageOrientation : uint32_t {
  kUp = 1,
  kUpMirrored = 2,
  kDown = 3,
  kDownMirrored = 4,
  kLeftMirrored = 5,
  kRight = 6,
  kRightMirrored = 7,
  kLeft = 8,
};

// How a non-square image is fitted to the model's square input, with the platform's raw values.
enum class CropAndScale : int32_t { kCenterCrop = 0, kScaleFit = 1, kScaleFill = 2 };

// The outcome of one model run. On success `outputs` holds, in this order: [0] an auxiliary feature
// map (may be an empty tensor), [1] class scores (91 x 1917), [2] box encodings (4 x 1917),
// [3] the activation (a three-dimensional feature map). On failure `error` says why.
struct DetectorResult {
  std::vector<NamedTensor> outputs;
  std::string error;
  bool ok() const { return error.empty(); }
};

// Runs the SSD detector on one camera image. Implementations must be safe to call from any thread,
// though the kit calls run() from one thread at a time.
class DetectorModel {
 public:
  virtual ~DetectorModel() = default;
  // Turns the image upright by orientation, fits it to the model input by crop, runs the model.
  virtual DetectorResult run(const PixelBuffer& image, ImageOrientation orientation,
                             CropAndScale crop) = 0;
};

}  // namespace omra
