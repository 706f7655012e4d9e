#include "src/scene/multi_array.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>

#include "src/foundation/fatal.h"
#include "src/foundation/math.h"

namespace omra {
namespace {

uint8_t toByte(double value, double offset, double scale) {
  const double v = (value + offset) * scale;
  if (std::isnan(v)) return 0;
  return static_cast<uint8_t>(clamp(v, 0.0, 255.0));
}

}  // namespace

template <typename T>
MultiArray<T>::MultiArray(std::vector<int64_t> shape, T initial)
    : array_(std::move(shape), tensorTypeOf<T>()) {
  pointer_ = static_cast<T*>(array_.data());
  std::fill(pointer_, pointer_ + array_.count(), initial);
}

template <typename T>
MultiArray<T>::MultiArray(Tensor tensor) : array_(std::move(tensor)) {
  OMRA_CHECK(array_.dataType() == tensorTypeOf<T>(), "MultiArray: element type does not match");
  pointer_ = static_cast<T*>(array_.data());
}

template <typename T>
T& MultiArray<T>::at(const std::vector<int64_t>& indices) const {
  const auto& sh = shape();
  OMRA_CHECK(indices.size() == sh.size(), "MultiArray: wrong number of subscripts");
  int64_t off = 0;
  for (size_t d = 0; d < indices.size(); ++d) {
    OMRA_CHECK(indices[d] >= 0 && indices[d] < sh[d], "MultiArray: subscript out of range");
    off += indices[d] * strides()[d];
  }
  return pointer_[off];
}

template <typename T>
MultiArray<T> MultiArray<T>::reshaped(std::vector<int64_t> newShape) const {
  OMRA_CHECK(array_.isContiguous(), "MultiArray: reshaping needs contiguous elements");
  const int64_t n =
      std::accumulate(newShape.begin(), newShape.end(), int64_t{1}, std::multiplies<int64_t>());
  OMRA_CHECK(n == count(), "MultiArray: reshaping must keep the element count");
  std::vector<int64_t> strides(newShape.size(), 1);
  for (size_t d = newShape.size(); d-- > 1;) strides[d - 1] = strides[d] * newShape[d];
  return MultiArray(Tensor(std::move(newShape), std::move(strides), array_.dataType(),
                           array_.storage(), array_.offset()));
}

template <typename T>
MultiArray<T> MultiArray<T>::transposed(const std::vector<int>& order) const {
  const auto& sh = shape();
  OMRA_CHECK(order.size() == sh.size(), "MultiArray: transposition order has the wrong length");
  std::vector<bool> seen(sh.size(), false);
  std::vector<int64_t> newShape, newStrides;
  for (int o : order) {
    OMRA_CHECK(o >= 0 && static_cast<size_t>(o) < sh.size() && !seen[static_cast<size_t>(o)],
               "MultiArray: transposition order is not a permutation");
    seen[static_cast<size_t>(o)] = true;
    newShape.push_back(sh[static_cast<size_t>(o)]);
    newStrides.push_back(strides()[static_cast<size_t>(o)]);
  }
  return MultiArray(Tensor(std::move(newShape), std::move(newStrides), array_.dataType(),
                           array_.storage(), array_.offset()));
}

template <typename T>
Image8 MultiArray<T>::image(double offset, double scale) const {
  if (shape().size() != 3) {
    fatalError("Expected a multi-array with 3 dimensions, got " + std::to_string(shape().size()));
  }
  if (shape()[0] != 3) {
    fatalError("Expected first dimension to have 3 channels, got " + std::to_string(shape()[0]));
  }
  const int64_t h = shape()[1], w = shape()[2];
  Image8 img{static_cast<int>(w), static_cast<int>(h), 4,
             std::vector<uint8_t>(static_cast<size_t>(w * h * 4))};
  for (int64_t y = 0; y < h; ++y) {
    for (int64_t x = 0; x < w; ++x) {
      uint8_t* px = &img.pixels[static_cast<size_t>((y * w + x) * 4)];
      for (int64_t c = 0; c < 3; ++c) px[c] = toByte((*this)(c, y, x), offset, scale);
      px[3] = 255;
    }
  }
  return img;
}

template <typename T>
Image8 MultiArray<T>::image(int channel, double offset, double scale) const {
  if (shape().size() != 3) {
    fatalError("Expected a multi-array with 3 dimensions, got " + std::to_string(shape().size()));
  }
  if (channel < 0 || channel >= shape()[0]) {
    fatalError("Channel must be between 0 and " + std::to_string(shape()[0] - 1));
  }
  const int64_t h = shape()[1], w = shape()[2];
  Image8 img{static_cast<int>(w), static_cast<int>(h), 1,
             std::vector<uint8_t>(static_cast<size_t>(w * h))};
  for (int64_t y = 0; y < h; ++y)
    for (int64_t x = 0; x < w; ++x)
      img.pixels[static_cast<size_t>(y * w + x)] = toByte((*this)(channel, y, x), offset, scale);
  return img;
}

template <typename T>
Image8 MultiArray<T>::greyImage(double offset, double scale) const {
  if (shape().size() != 2) {
    fatalError("Expected a multi-array with 2 dimensions, got " + std::to_string(shape().size()));
  }
  const int64_t h = shape()[0], w = shape()[1];
  Image8 img{static_cast<int>(w), static_cast<int>(h), 1,
             std::vector<uint8_t>(static_cast<size_t>(w * h))};
  for (int64_t y = 0; y < h; ++y)
    for (int64_t x = 0; x < w; ++x)
      img.pixels[static_cast<size_t>(y * w + x)] = toByte((*this)(y, x), offset, scale);
  return img;
}

template class MultiArray<float>;
template class MultiArray<double>;
template class MultiArray<int32_t>;

}  // namespace omra
