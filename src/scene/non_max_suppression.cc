#include "src/scene/non_max_suppression.h"

namespace omra {

float IOU(const Rect& a, const Rect& b) {
  const double areaA = (a.maxX() - a.minX()) * (a.maxY() - a.minY());
  const double areaB = (b.maxX() - b.minX()) * (b.maxY() - b.minY());
  if (areaA <= 0 || areaB <= 0) return 0;
  const double iw = std::max(0.0, std::min(a.maxX(), b.maxX()) - std::max(a.minX(), b.minX()));
  const double ih = std::max(0.0, std::min(a.maxY(), b.maxY()) - std::max(a.minY(), b.minY()));
  const double inter = iw * ih;
  return static_cast<float>(inter / (areaA + areaB - inter));
}

std::vector<int> nonMaxSuppression(const std::vector<NmsPrediction>& predictions,
                                   float iouThreshold, int maxBoxes) {
  std::vector<int> all(predictions.size());
  std::iota(all.begin(), all.end(), 0);
  return nonMaxSuppression(predictions, all, iouThreshold, maxBoxes);
}

std::vector<int> nonMaxSuppression(const std::vector<NmsPrediction>& predictions,
                                   const std::vector<int>& indices, float iouThreshold,
                                   int maxBoxes) {
  std::vector<int> sorted;
  sorted.reserve(indices.size());
  for (int i : indices) {
    if (i >= 0 && static_cast<size_t>(i) < predictions.size()) sorted.push_back(i);
  }
  std::stable_sort(sorted.begin(), sorted.end(), [&](int a, int b) {
    return predictions[static_cast<size_t>(a)].score > predictions[static_cast<size_t>(b)].score;
  });
  std::vector<int> kept;
  for (int i : sorted) {
    if (static_cast<int>(kept.size()) >= maxBoxes) break;
    bool keep = true;
    for (int k : kept) {
      if (IOU(predictions[static_cast<size_t>(i)].rect, predictions[static_cast<size_t>(k)].rect) >
          iouThreshold) {
        keep = false;
        break;
      }
    }
    if (keep) kept.push_back(i);
  }
  return kept;
}

std::vector<int> nonMaxSuppressionMultiClass(int numClasses,
                                             const std::vector<NmsPrediction>& predictions,
                                             float scoreThreshold, float iouThreshold,
                                             int maxPerClass, int maxTotal) {
  std::vector<int> all;
  for (int c = 0; c < numClasses; ++c) {
    std::vector<int> ofClass;
    for (size_t i = 0; i < predictions.size(); ++i) {
      if (predictions[i].classIndex == c && predictions[i].score > scoreThreshold) {
        ofClass.push_back(static_cast<int>(i));
      }
    }
    const std::vector<int> kept =
        nonMaxSuppression(predictions, ofClass, iouThreshold, maxPerClass);
    all.insert(all.end(), kept.begin(), kept.end());
  }
  std::stable_sort(all.begin(), all.end(), [&](int a, int b) {
    return predictions[static_cast<size_t>(a)].score > predictions[static_cast<size_t>(b)].score;
  });
  if (static_cast<int>(all.size()) > maxTotal)
    all.resize(static_cast<size_t>(std::max(maxTotal, 0)));
  return all;
}

}  // namespace omra
