// The detector's outputs for one frame: the suppressed predictions and the raw feature map.
// Immutable once built; shared read-only across threads (held by shared_ptr<const Activation>).
#pragma once

#include <vector>

#include "omrakit/platform/detector_model.h"
#include "src/scene/prediction.h"

namespace omra {

class Activation {
 public:
  Activation(std::vector<Prediction> predictions, Tensor activation)
      : predictions(std::move(predictions)), activation(std::move(activation)) {}

  std::vector<Prediction> predictions;
  Tensor activation;  // a (d0, d1, d2) feature map

  // The feature map flattened in [i][j][k] order (k fastest) over its first three dimensions.
  // A map of fewer than three dimensions is a broken invariant (the detector refuses those).
  std::vector<double> getFullVector() const;
};

}  // namespace omra
