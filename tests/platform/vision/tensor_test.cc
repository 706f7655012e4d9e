#include <gtest/gtest.h>

#include <limits>

#include "omrakit/platform/detector_model.h"

namespace omra {
namespace {

// Views a host's model runtime may hand the kit: only those inside their storage may be read.
TEST(Tensor, FitsStorageOnlyWhenEveryAddressedElementIsInside) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  const auto storage = [](size_t floats) {
    return std::make_shared<std::vector<std::byte>>(floats * sizeof(float));
  };
  const struct {
    const char* name;
    Tensor tensor;
    bool fits;
  } cases[] = {
      {"fresh", Tensor({3, 4}, TensorDataType::kFloat32), true},
      {"no storage", Tensor(), true},
      {"exact view", Tensor({3, 4}, {4, 1}, TensorDataType::kFloat32, storage(12)), true},
      {"one element short", Tensor({3, 4}, {4, 1}, TensorDataType::kFloat32, storage(11)), false},
      {"offset pushes past the end",
       Tensor({3, 4}, {4, 1}, TensorDataType::kFloat32, storage(12), 1), false},
      {"doubles over float-sized storage",
       Tensor({3, 4}, {4, 1}, TensorDataType::kFloat64, storage(12)), false},
      {"transposed view", Tensor({4, 3}, {1, 4}, TensorDataType::kFloat32, storage(12)), true},
      {"negative stride from the last row",
       Tensor({3, 4}, {-4, 1}, TensorDataType::kFloat32, storage(12), 8), true},
      {"negative stride before the start",
       Tensor({3, 4}, {-4, 1}, TensorDataType::kFloat32, storage(12), 4), false},
      {"negative offset", Tensor({1}, {1}, TensorDataType::kFloat32, storage(4), -1), false},
      {"negative size", Tensor({-2, 4}, {4, 1}, TensorDataType::kFloat32, storage(12)), false},
      {"empty view", Tensor({0, 4}, {4, 1}, TensorDataType::kFloat32, storage(0)), true},
      {"stride overflows", Tensor({3, 4}, {kMax / 2, 1}, TensorDataType::kFloat32, storage(12)),
       false},
      {"shape overflows", Tensor({kMax / 2, 4}, {4, 1}, TensorDataType::kFloat32, storage(12)),
       false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.tensor.fitsStorage(), c.fits) << c.name;
  }
}

}  // namespace
}  // namespace omra
