#include "src/scene/ssd_post_processor.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "src/foundation/fatal.h"
#include "src/scene/non_max_suppression.h"
#include "src/scene/ssd_anchors.h"

namespace omra {
namespace {

// A flat read-only view of a tensor's elements in row-major order, as float or double; copies only
// when the tensor is not already contiguous float32 or float64.
struct FlatValues {
  const float* f = nullptr;
  const double* d = nullptr;
  std::vector<double> owned;

  explicit FlatValues(const Tensor& t) {
    if (t.isContiguous() && t.dataType() == TensorDataType::kFloat32) {
      f = static_cast<const float*>(t.data());
    } else if (t.isContiguous() && t.dataType() == TensorDataType::kFloat64) {
      d = static_cast<const double*>(t.data());
    } else {
      owned.resize(static_cast<size_t>(t.count()));
      for (int64_t i = 0; i < t.count(); ++i) owned[static_cast<size_t>(i)] = t.valueAt(i);
      d = owned.data();
    }
  }
  double operator[](size_t i) const { return f ? f[i] : d[i]; }
};

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream in(text);
  while (std::getline(in, part, sep)) parts.push_back(part);
  return parts;
}

struct Candidate {
  double score;
  int index;
};

// Max-heap order: higher score first, then lower anchor index (the order a stable sort gives).
bool heapBefore(const Candidate& a, const Candidate& b) {
  return a.score < b.score || (a.score == b.score && a.index > b.index);
}

}  // namespace

const char* const SSDPostProcessor::kClassNamesRaw =
    "???,person,bicycle,car,motorcycle,airplane,bus,train,truck,boat,traffic light,fire "
    "hydrant,???,stop sign,parking meter,bench,bird,cat,dog,horse,sheep,cow,elephant,bear,zebra,"
    "giraffe,???,backpack,umbrella,???,???,handbag,tie,suitcase,frisbee,skis,snowboard,sports "
    "ball,kite,baseball bat,baseball glove,skateboard,surfboard,tennis "
    "racket,bottle,???,wine glass,cup,fork,knife,spoon,bowl,banana,apple,sandwich,orange,broccoli,"
    "carrot,hot dog,pizza,donut,cake,chair,couch,potted plant,bed,???,dining "
    "table,???,???,toilet,???,tv,laptop,mouse,remote,keyboard,cell "
    "phone,microwave,oven,toaster,sink,refrigerator,???,book,clock,vase,scissors,teddy bear,hair "
    "drier,toothbrush";

SSDPostProcessor::SSDPostProcessor(int numAnchors_, int numClasses_, double threshold_)
    : numAnchors(numAnchors_),
      numClasses(numClasses_),
      threshold(threshold_),
      classNamesRaw(kClassNamesRaw) {
  OMRA_CHECK(numAnchors >= 0 && numAnchors <= SSDAnchors::kNumAnchors,
             "SSDPostProcessor: more anchors than the anchor table holds");
  classNames = split(classNamesRaw, ',');
}

bool SSDPostProcessor::acceptsOutputs(const Tensor& boxes, const Tensor& scores) const {
  const int64_t n = numAnchors;
  return boxes.count() == 4 * n && scores.count() == (numClasses + 1) * n;
}

Rect SSDPostProcessor::modelPixelRect(const OrientedBoundingBox& b) {
  return {b.xMin * 300, b.yMin * 300, (b.xMax - b.xMin) * 300, (b.yMax - b.yMin) * 300};
}

std::vector<std::vector<Prediction>> SSDPostProcessor::pruneLowScoring(const Tensor& boxes,
                                                                       const Tensor& scores) const {
  OMRA_CHECK(acceptsOutputs(boxes, scores),
             "SSDPostProcessor: detector outputs have the wrong size");
  const FlatValues s(scores), e(boxes);
  const auto& anchors = SSDAnchors::ssdAnchors();
  const size_t n = static_cast<size_t>(numAnchors);
  std::vector<std::vector<Prediction>> lists(static_cast<size_t>(numClasses) + 1);
  for (int c = 1; c <= numClasses; ++c) {
    for (size_t b = 0; b < n; ++b) {
      const double score = s[static_cast<size_t>(c) * n + b];
      if (threshold < score) {
        lists[static_cast<size_t>(c)].push_back(
            {static_cast<int>(b), score, OrientedBoundingBox::fromAnchor(anchors[b]),
             AnchorEncoding{e[b], e[n + b], e[2 * n + b], e[3 * n + b]}, c});
      }
    }
  }
  return lists;
}

std::vector<Prediction> SSDPostProcessor::nonMaximumSupressionForClass(
    std::vector<Prediction> predictions, float iouThreshold, int maxBoxes) {
  // Stable, so equal scores stay in anchor order.
  std::stable_sort(predictions.begin(), predictions.end(),
                   [](const Prediction& a, const Prediction& b) { return a.score > b.score; });
  std::vector<Prediction> kept;
  std::vector<Rect> keptRects;
  for (const Prediction& p : predictions) {
    if (static_cast<int>(kept.size()) >= maxBoxes) break;
    const Rect r = modelPixelRect(p.finalPrediction());
    bool keep = true;
    for (const Rect& k : keptRects) {
      if (IOU(r, k) > iouThreshold) {
        keep = false;
        break;
      }
    }
    if (keep) {
      kept.push_back(p);
      keptRects.push_back(r);
    }
  }
  return kept;
}

std::vector<Prediction> SSDPostProcessor::nonMaximumSupression(
    const std::vector<std::vector<Prediction>>& predictions) const {
  OMRA_CHECK(numClasses >= 1 && predictions.size() >= 2,
             "SSDPostProcessor: nothing to suppress over");
  std::vector<Prediction> out;
  for (int c = 1; c <= numClasses && static_cast<size_t>(c) < predictions.size(); ++c) {
    auto kept = nonMaximumSupressionForClass(predictions[static_cast<size_t>(c)], kIouThreshold,
                                             kMaxBoxesPerClass);
    out.insert(out.end(), kept.begin(), kept.end());
  }
  return out;
}

std::vector<Prediction> SSDPostProcessor::process(const Tensor& boxes, const Tensor& scores) const {
  OMRA_CHECK(acceptsOutputs(boxes, scores),
             "SSDPostProcessor: detector outputs have the wrong size");
  OMRA_CHECK(numClasses >= 1, "SSDPostProcessor: nothing to suppress over");
  const FlatValues e(boxes);
  const auto& anchors = SSDAnchors::ssdAnchors();
  const size_t n = static_cast<size_t>(numAnchors);

  // Each anchor decodes to the same box in every class: decode on first use only.
  std::vector<Rect> rects(n);
  std::vector<uint8_t> decoded(n, 0);
  auto rectOf = [&](size_t b) -> const Rect& {
    if (!decoded[b]) {
      const AnchorEncoding enc{e[b], e[n + b], e[2 * n + b], e[3 * n + b]};
      rects[b] = modelPixelRect(decodeBox(OrientedBoundingBox::fromAnchor(anchors[b]), enc));
      decoded[b] = 1;
    }
    return rects[b];
  };

  std::vector<Prediction> out;
  std::vector<Candidate> heap;
  heap.reserve(n);
  int kept[kMaxBoxesPerClass];
  double keptScores[kMaxBoxesPerClass];

  auto scanClass = [&](auto values, int c) {
    heap.clear();
    const auto* row = values + static_cast<size_t>(c) * n;
    for (size_t b = 0; b < n; ++b) {
      const double score = row[b];
      if (threshold < score) heap.push_back({score, static_cast<int>(b)});
    }
  };
  const bool isFloat = scores.isContiguous() && scores.dataType() == TensorDataType::kFloat32;
  const FlatValues s(scores);

  for (int c = 1; c <= numClasses; ++c) {
    if (isFloat) {
      scanClass(s.f, c);
    } else {
      scanClass(s.d, c);
    }
    if (heap.empty()) continue;
    std::make_heap(heap.begin(), heap.end(), heapBefore);
    int numKept = 0;
    while (!heap.empty() && numKept < kMaxBoxesPerClass) {
      std::pop_heap(heap.begin(), heap.end(), heapBefore);
      const Candidate cand = heap.back();
      heap.pop_back();
      const Rect& r = rectOf(static_cast<size_t>(cand.index));
      bool keep = true;
      for (int k = 0; k < numKept; ++k) {
        if (IOU(r, rects[static_cast<size_t>(kept[k])]) > kIouThreshold) {
          keep = false;
          break;
        }
      }
      if (keep) {
        kept[numKept] = cand.index;
        keptScores[numKept] = cand.score;
        ++numKept;
      }
    }
    for (int k = 0; k < numKept; ++k) {
      const size_t b = static_cast<size_t>(kept[k]);
      out.push_back({kept[k], keptScores[k], OrientedBoundingBox::fromAnchor(anchors[b]),
                     AnchorEncoding{e[b], e[n + b], e[2 * n + b], e[3 * n + b]}, c});
    }
  }
  return out;
}

}  // namespace omra
