// Turns the SSD detector's raw box encodings and class scores into scored, classed, suppressed
// predictions. Immutable after construction: safe to share across threads.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/detector_model.h"
#include "src/scene/prediction.h"
#include "src/scene/rect.h"

namespace omra {

class SSDPostProcessor {
 public:
  static const char* const kClassNamesRaw;
  static constexpr float kIouThreshold = 0.3f;
  static constexpr int kMaxBoxesPerClass = 10;

  // numAnchors may not exceed the anchor table (fatal).
  SSDPostProcessor(int numAnchors, int numClasses, double threshold);

  int numAnchors;
  int numClasses;  // not counting the background class 0
  double threshold;
  std::optional<std::vector<std::string>> classNames;
  std::string classNamesRaw;

  // True when the tensors fit their storage and are shaped [4, numAnchors] (encodings) and
  // [numClasses + 1, numAnchors] (scores), leading dimensions of 1 aside; the readers below are
  // fatal on anything else.
  bool acceptsOutputs(const Tensor& boxPredictions, const Tensor& classPredictions) const;

  struct Outputs {
    Tensor boxes, scores;
  };
  // A model's outputs in the layout the readers take. Exported SSD models often give them
  // anchor-major ([numAnchors, 4] and [numAnchors, numClasses + 1]): those are told apart by shape
  // and transposed. None, with *why, for a tensor that does not fit its storage, has the wrong
  // number of values, or whose shape does not say which layout it is in.
  std::optional<Outputs> canonicalOutputs(const Tensor& boxPredictions,
                                          const Tensor& classPredictions, std::string* why) const;

  // Per class number (index 0, the background, stays empty): every anchor whose score is strictly
  // above the threshold. Tensors are read flat: score of anchor b for class c at c*numAnchors+b,
  // encodings of b at b, numAnchors+b, 2*numAnchors+b, 3*numAnchors+b.
  std::vector<std::vector<Prediction>> pruneLowScoring(const Tensor& boxPredictions,
                                                       const Tensor& classPredictions) const;
  // Greedy suppression per class (IOU 0.3, 10 boxes), grouped by class, each group by score.
  std::vector<Prediction> nonMaximumSupression(
      const std::vector<std::vector<Prediction>>& predictions) const;
  static std::vector<Prediction> nonMaximumSupressionForClass(std::vector<Prediction> predictions,
                                                              float iouThreshold, int maxBoxes);

  // pruneLowScoring followed by nonMaximumSupression, with the same output, without materialising
  // every candidate: each box is decoded at most once per frame and a class stops at its limit.
  std::vector<Prediction> process(const Tensor& boxPredictions,
                                  const Tensor& classPredictions) const;

  // A decoded box as a rectangle in model pixels, the form the suppression compares.
  static Rect modelPixelRect(const OrientedBoundingBox& box);
};

}  // namespace omra
