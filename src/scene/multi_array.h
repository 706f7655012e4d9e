// MultiArray<T>: a typed view over a Tensor (float, double or int32) with subscripts, reshaping,
// transposition and conversion to 8-bit images for inspection.
//
// Value type; copies share the elements. Not thread-safe to write while another thread reads.
// Out-of-range subscripts and shape errors are broken invariants (fatal).
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "omrakit/platform/detector_model.h"

namespace omra {

// 8-bit image: channels 1 (grey) or 4 (RGBA), packed rows.
struct Image8 {
  int width = 0, height = 0, channels = 0;
  std::vector<uint8_t> pixels;
};

template <typename T>
constexpr TensorDataType tensorTypeOf() {
  if constexpr (std::is_same_v<T, float>) return TensorDataType::kFloat32;
  if constexpr (std::is_same_v<T, double>) return TensorDataType::kFloat64;
  static_assert(std::is_same_v<T, float> || std::is_same_v<T, double> || std::is_same_v<T, int32_t>,
                "MultiArray holds float, double or int32_t");
  return TensorDataType::kInt32;
}

template <typename T>
class MultiArray {
 public:
  // A new array filled with initial.
  MultiArray(std::vector<int64_t> shape, T initial);
  // A view over tensor, whose element type must be T (fatal otherwise).
  explicit MultiArray(Tensor tensor);

  const Tensor& array() const { return array_; }
  T* pointer() const { return pointer_; }
  const std::vector<int64_t>& shape() const { return array_.shape(); }
  const std::vector<int64_t>& strides() const { return array_.strides(); }
  int64_t count() const { return array_.count(); }

  T& operator()(int64_t i) const { return at({i}); }
  T& operator()(int64_t i, int64_t j) const { return at({i, j}); }
  T& operator()(int64_t i, int64_t j, int64_t k) const { return at({i, j, k}); }
  T& at(const std::vector<int64_t>& indices) const;

  // Same elements under a new shape of the same count; needs a contiguous view.
  MultiArray reshaped(std::vector<int64_t> shape) const;
  // Dimensions permuted by order (a permutation of 0..n-1).
  MultiArray transposed(const std::vector<int>& order) const;

  // A (3, height, width) array as RGBA; each byte is clamp((value + offset) * scale, 0, 255).
  Image8 image(double offset, double scale) const;
  // One channel of a (channels, height, width) array as grey.
  Image8 image(int channel, double offset, double scale) const;
  // A (height, width) array as grey.
  Image8 greyImage(double offset, double scale) const;

 private:
  Tensor array_;
  T* pointer_ = nullptr;
};

extern template class MultiArray<float>;
extern template class MultiArray<double>;
extern template class MultiArray<int32_t>;

}  // namespace omra
