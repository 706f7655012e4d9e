// Turns intended detector boxes into the raw SSD outputs the kit decodes: box encodings against the
// anchor table and class scores, laid out flat with the anchor index fastest. Pure functions.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/recording.h"

namespace omra::sim {

inline constexpr int kSsdAnchors = 1917;
inline constexpr int kSsdClasses = 91;  // background included

struct SsdTensors {
  std::vector<float> boxEncodings;  // 4 x 1917: ty, tx, th, tw rows
  std::vector<float> classScores;   // 91 x 1917
};

// Each detection lands on its best-overlapping free anchor with an exact encoding, so the kit's
// decoding gives the box back; up to two neighbouring anchors echo it with lower scores and a
// slightly shifted box, as a real detector does before suppression. seed varies the echoes.
SsdTensors encodeDetections(const std::vector<Detection>& detections, uint64_t seed);

}  // namespace omra::sim
