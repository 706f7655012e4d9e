#include <algorithm>
#include <cstring>
#include <utility>

#include "omrakit/platform/detector_model.h"
#include "src/foundation/fatal.h"

namespace omra {
namespace {

std::vector<int64_t> rowMajorStrides(const std::vector<int64_t>& shape) {
  std::vector<int64_t> strides(shape.size(), 1);
  for (size_t d = shape.size(); d-- > 1;)
    strides[d - 1] = strides[d] * std::max<int64_t>(shape[d], 1);
  return strides;
}

template <typename T>
Tensor fromValues(std::vector<int64_t> shape, const std::vector<T>& values, TensorDataType type) {
  Tensor t(std::move(shape), type);
  OMRA_CHECK(static_cast<int64_t>(values.size()) == t.count(),
             "Tensor: value count does not match shape");
  if (!values.empty()) std::memcpy(t.data(), values.data(), values.size() * sizeof(T));
  return t;
}

}  // namespace

size_t tensorElementSize(TensorDataType type) {
  switch (type) {
    case TensorDataType::kFloat32:
      return 4;
    case TensorDataType::kFloat64:
      return 8;
    case TensorDataType::kInt32:
      return 4;
  }
  return 4;
}

Tensor::Tensor(std::vector<int64_t> shape, TensorDataType type)
    : shape_(std::move(shape)), type_(type) {
  for (int64_t& s : shape_) s = std::max<int64_t>(s, 0);
  strides_ = rowMajorStrides(shape_);
  int64_t n = 1;
  for (int64_t d : shape_) n *= d;
  storage_ =
      std::make_shared<std::vector<std::byte>>(static_cast<size_t>(n) * tensorElementSize(type));
}

Tensor::Tensor(std::vector<int64_t> shape, std::vector<int64_t> strides, TensorDataType type,
               std::shared_ptr<std::vector<std::byte>> storage, int64_t offset)
    : shape_(std::move(shape)),
      strides_(std::move(strides)),
      type_(type),
      storage_(std::move(storage)),
      offset_(offset) {
  OMRA_CHECK(shape_.size() == strides_.size(), "Tensor: shape and strides differ in length");
}

Tensor Tensor::fromFloats(std::vector<int64_t> shape, const std::vector<float>& values) {
  return fromValues(std::move(shape), values, TensorDataType::kFloat32);
}
Tensor Tensor::fromDoubles(std::vector<int64_t> shape, const std::vector<double>& values) {
  return fromValues(std::move(shape), values, TensorDataType::kFloat64);
}
Tensor Tensor::fromInts(std::vector<int64_t> shape, const std::vector<int32_t>& values) {
  return fromValues(std::move(shape), values, TensorDataType::kInt32);
}

int64_t Tensor::count() const {
  if (!storage_) return 0;
  int64_t n = 1;
  for (int64_t s : shape_) {
    // A view whose shape does not fit any storage counts as empty rather than overflowing.
    if (s <= 0 || __builtin_mul_overflow(n, s, &n)) return 0;
  }
  return n;
}

bool Tensor::fitsStorage() const {
  if (!storage_) return true;
  if (offset_ < 0) return false;
  bool empty = false;
  for (int64_t s : shape_) {
    if (s < 0) return false;
    empty = empty || s == 0;
  }
  if (empty) return true;
  // The lowest and highest element the view reaches, relative to its first element.
  int64_t low = 0, high = 0;
  for (size_t d = 0; d < shape_.size(); ++d) {
    int64_t reach;
    if (__builtin_mul_overflow(shape_[d] - 1, strides_[d], &reach)) return false;
    if (__builtin_add_overflow(reach < 0 ? low : high, reach, reach < 0 ? &low : &high)) {
      return false;
    }
  }
  int64_t first, end, bytes;
  if (__builtin_add_overflow(offset_, low, &first) || first < 0) return false;
  if (__builtin_add_overflow(offset_, high, &end) || __builtin_add_overflow(end, 1, &end)) {
    return false;
  }
  if (__builtin_mul_overflow(end, static_cast<int64_t>(tensorElementSize(type_)), &bytes)) {
    return false;
  }
  return static_cast<uint64_t>(bytes) <= storage_->size();
}

bool Tensor::isContiguous() const { return strides_ == rowMajorStrides(shape_); }

const void* Tensor::data() const {
  if (!storage_) return nullptr;
  return storage_->data() + static_cast<size_t>(offset_) * tensorElementSize(type_);
}

void* Tensor::data() {
  if (!storage_) return nullptr;
  return storage_->data() + static_cast<size_t>(offset_) * tensorElementSize(type_);
}

double Tensor::valueAt(int64_t i) const {
  OMRA_CHECK(i >= 0 && i < count(), "Tensor: index out of range");
  int64_t off = 0;
  for (size_t d = shape_.size(); d-- > 0;) {
    off += (i % shape_[d]) * strides_[d];
    i /= shape_[d];
  }
  switch (type_) {
    case TensorDataType::kFloat32:
      return static_cast<const float*>(data())[off];
    case TensorDataType::kFloat64:
      return static_cast<const double*>(data())[off];
    case TensorDataType::kInt32:
      return static_cast<const int32_t*>(data())[off];
  }
  return 0;
}

std::vector<float> Tensor::toFloats() const {
  const int64_t n = count();
  std::vector<float> out(static_cast<size_t>(n));
  if (n == 0) return out;
  if (type_ == TensorDataType::kFloat32 && isContiguous()) {
    std::memcpy(out.data(), data(), out.size() * sizeof(float));
    return out;
  }
  for (int64_t i = 0; i < n; ++i) out[static_cast<size_t>(i)] = static_cast<float>(valueAt(i));
  return out;
}

}  // namespace omra
