// SSD detections before and after decoding: value types, safe to copy across threads.
#pragma once

#include <array>

#include "src/scene/oriented_bounding_box.h"

namespace omra {

// The raw regression outputs for one anchor: centre offsets in y and x, log-scale height and width.
struct AnchorEncoding {
  double ty = 0, tx = 0, th = 0, tw = 0;
  bool operator==(const AnchorEncoding&) const = default;
};

// Divisors the detector was trained with (box-coder scale factors).
inline constexpr double kCentreScale = 10.0;
inline constexpr double kSizeScale = 5.0;

// Decodes encoding against anchor: the box the detector means.
OrientedBoundingBox decodeBox(const OrientedBoundingBox& anchor, const AnchorEncoding& encoding);
// The inverse of decodeBox: the encoding that makes anchor decode to box (for producing synthetic
// detector outputs). Box and anchor need positive extents.
AnchorEncoding encodeBox(const OrientedBoundingBox& anchor, const OrientedBoundingBox& box);

struct Prediction {
  int index = 0;  // anchor index
  double score = 0;
  OrientedBoundingBox anchor;
  AnchorEncoding anchorEncoding;
  int detectedClass = 0;  // 1..numClasses

  OrientedBoundingBox finalPrediction() const { return decodeBox(anchor, anchorEncoding); }
  bool operator==(const Prediction&) const = default;
};

}  // namespace omra
