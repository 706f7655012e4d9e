#include "src/scene/prediction.h"

#include <cmath>

namespace omra {

OrientedBoundingBox decodeBox(const OrientedBoundingBox& a, const AnchorEncoding& e) {
  const double yca = (a.yMin + a.yMax) * 0.5, xca = (a.xMin + a.xMax) * 0.5;
  const double ha = a.yMax - a.yMin, wa = a.xMax - a.xMin;
  const double yc = yca + ha * (e.ty / kCentreScale);
  const double xc = xca + wa * (e.tx / kCentreScale);
  const double h = ha * std::exp(e.th / kSizeScale);
  const double w = wa * std::exp(e.tw / kSizeScale);
  return {yc - h / 2, xc - w / 2, yc + h / 2, xc + w / 2, 300, 300};
}

AnchorEncoding encodeBox(const OrientedBoundingBox& a, const OrientedBoundingBox& b) {
  const double yca = (a.yMin + a.yMax) * 0.5, xca = (a.xMin + a.xMax) * 0.5;
  const double ha = a.yMax - a.yMin, wa = a.xMax - a.xMin;
  const double yc = (b.yMin + b.yMax) * 0.5, xc = (b.xMin + b.xMax) * 0.5;
  const double h = b.yMax - b.yMin, w = b.xMax - b.xMin;
  return {(yc - yca) / ha * kCentreScale, (xc - xca) / wa * kCentreScale,
          std::log(h / ha) * kSizeScale, std::log(w / wa) * kSizeScale};
}

}  // namespace omra
