#include "sim/ssd_encoder.h"

#include <algorithm>
#include <random>

#include "src/scene/prediction.h"
#include "src/scene/ssd_anchors.h"

namespace omra::sim {
namespace {

double iou(const OrientedBoundingBox& a, const OrientedBoundingBox& b) {
  double ih = std::min(a.yMax, b.yMax) - std::max(a.yMin, b.yMin);
  double iw = std::min(a.xMax, b.xMax) - std::max(a.xMin, b.xMin);
  if (ih <= 0 || iw <= 0) return 0;
  double inter = ih * iw;
  double areaA = (a.yMax - a.yMin) * (a.xMax - a.xMin),
         areaB = (b.yMax - b.yMin) * (b.xMax - b.xMin);
  return inter / (areaA + areaB - inter);
}

void put(SsdTensors& t, int anchor, const AnchorEncoding& e) {
  const size_t b = static_cast<size_t>(anchor), n = kSsdAnchors;
  t.boxEncodings[b] = static_cast<float>(e.ty);
  t.boxEncodings[n + b] = static_cast<float>(e.tx);
  t.boxEncodings[2 * n + b] = static_cast<float>(e.th);
  t.boxEncodings[3 * n + b] = static_cast<float>(e.tw);
}

}  // namespace

SsdTensors encodeDetections(const std::vector<Detection>& detections, uint64_t seed) {
  SsdTensors t;
  t.boxEncodings.assign(4 * kSsdAnchors, 0.f);
  t.classScores.assign(static_cast<size_t>(kSsdClasses) * kSsdAnchors, 0.f);
  const auto& anchors = SSDAnchors::ssdAnchors();
  std::vector<bool> used(kSsdAnchors, false);
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> unit(0, 1);

  std::vector<const Detection*> order;
  for (const Detection& d : detections) {
    if (d.classIndex >= 1 && d.classIndex < kSsdClasses && d.yMax > d.yMin && d.xMax > d.xMin) {
      order.push_back(&d);
    }
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const Detection* a, const Detection* b) { return a->score > b->score; });
  for (const Detection* d : order) {
    OrientedBoundingBox box;
    box.yMin = d->yMin;
    box.xMin = d->xMin;
    box.yMax = d->yMax;
    box.xMax = d->xMax;
    std::vector<std::pair<double, int>> ranked;
    for (int a = 0; a < kSsdAnchors; ++a) {
      if (!used[static_cast<size_t>(a)])
        ranked.emplace_back(
            iou(box, OrientedBoundingBox::fromAnchor(anchors[static_cast<size_t>(a)])), a);
    }
    if (ranked.empty()) break;
    size_t keep = std::min<size_t>(3, ranked.size());
    std::partial_sort(ranked.begin(), ranked.begin() + static_cast<long>(keep), ranked.end(),
                      [](const auto& x, const auto& y) {
                        return x.first > y.first || (x.first == y.first && x.second < y.second);
                      });
    for (size_t k = 0; k < keep; ++k) {
      if (k > 0 && ranked[k].first < 0.4) break;
      int a = ranked[k].second;
      used[static_cast<size_t>(a)] = true;
      OrientedBoundingBox target = box;
      double score = d->score;
      if (k > 0) {
        // An echo: a little off, a little less sure; suppression removes it.
        double w = box.xMax - box.xMin, h = box.yMax - box.yMin;
        double dx = (unit(rng) - 0.5) * 0.04 * w, dy = (unit(rng) - 0.5) * 0.04 * h;
        target.xMin += dx;
        target.xMax += dx;
        target.yMin += dy;
        target.yMax += dy;
        score = std::max(0.02, d->score - 0.04 * static_cast<double>(k) - 0.03 * unit(rng));
      }
      put(t, a,
          encodeBox(OrientedBoundingBox::fromAnchor(anchors[static_cast<size_t>(a)]), target));
      t.classScores[static_cast<size_t>(d->classIndex) * kSsdAnchors + static_cast<size_t>(a)] =
          static_cast<float>(score);
    }
  }
  return t;
}

}  // namespace omra::sim
