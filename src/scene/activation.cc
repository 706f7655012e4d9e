#include "src/scene/activation.h"

#include "src/foundation/fatal.h"

namespace omra {

std::vector<double> Activation::getFullVector() const {
  const auto& shape = activation.shape();
  OMRA_CHECK(shape.size() >= 3 && activation.data(),
             "Activation: the feature map needs three dimensions");
  const auto& st = activation.strides();
  std::vector<double> out;
  out.reserve(static_cast<size_t>(shape[0] * shape[1] * shape[2]));
  auto read = [&](int64_t off) -> double {
    switch (activation.dataType()) {
      case TensorDataType::kFloat32:
        return static_cast<const float*>(activation.data())[off];
      case TensorDataType::kFloat64:
        return static_cast<const double*>(activation.data())[off];
      case TensorDataType::kInt32:
        return static_cast<const int32_t*>(activation.data())[off];
    }
    return 0;
  };
  for (int64_t i = 0; i < shape[0]; ++i)
    for (int64_t j = 0; j < shape[1]; ++j)
      for (int64_t k = 0; k < shape[2]; ++k) out.push_back(read(i * st[0] + j * st[1] + k * st[2]));
  return out;
}

}  // namespace omra
