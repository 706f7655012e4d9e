// General greedy non-maximum suppression over (class, score, rectangle) triples, and the small
// array helpers that go with it. Pure functions; safe from any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

#include "src/scene/rect.h"

namespace omra {

// Boxes overlapping by more than this are the same object (compared in single precision).
inline constexpr float kDefaultIouThreshold = 0.3f;

// Intersection over union; 0 when either rectangle has no positive area.
float IOU(const Rect& a, const Rect& b);

struct NmsPrediction {
  int classIndex = 0;
  float score = 0;
  Rect rect;
};

// Greedy suppression over all predictions: indices kept, in the order kept (highest score first).
std::vector<int> nonMaxSuppression(const std::vector<NmsPrediction>& predictions,
                                   float iouThreshold, int maxBoxes);
// The same over the given indices only.
std::vector<int> nonMaxSuppression(const std::vector<NmsPrediction>& predictions,
                                   const std::vector<int>& indices, float iouThreshold,
                                   int maxBoxes);
// Per class (0..numClasses-1, scores strictly above scoreThreshold), then all kept indices by
// score, at most maxTotal of them.
std::vector<int> nonMaxSuppressionMultiClass(int numClasses,
                                             const std::vector<NmsPrediction>& predictions,
                                             float scoreThreshold, float iouThreshold,
                                             int maxPerClass, int maxTotal);

// Index and value of the largest element (the first one on ties); {-1, T{}} when empty.
template <typename T>
std::pair<int, T> argmax(const std::vector<T>& values) {
  if (values.empty()) return {-1, T{}};
  auto it = std::max_element(values.begin(), values.end());
  return {static_cast<int>(it - values.begin()), *it};
}

// Indices ordered so that before(values[i], values[j]) holds for i before j (stable).
template <typename T, typename Before>
std::vector<int> argsort(const std::vector<T>& values, Before before) {
  std::vector<int> idx(values.size());
  std::iota(idx.begin(), idx.end(), 0);
  std::stable_sort(idx.begin(), idx.end(), [&](int a, int b) {
    return before(values[static_cast<size_t>(a)], values[static_cast<size_t>(b)]);
  });
  return idx;
}

// The elements at indices; indices outside the array are skipped.
template <typename T>
std::vector<T> gather(const std::vector<T>& values, const std::vector<int>& indices) {
  std::vector<T> out;
  out.reserve(indices.size());
  for (int i : indices) {
    if (i >= 0 && static_cast<size_t>(i) < values.size())
      out.push_back(values[static_cast<size_t>(i)]);
  }
  return out;
}

}  // namespace omra
