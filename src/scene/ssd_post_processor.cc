#include "src/scene/ssd_post_processor.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>
#include <limits>
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

// The shape without its leading dimensions of 1 (a batch of one), keeping at least one.
std::vector<int64_t> withoutBatch(const std::vector<int64_t>& shape) {
  size_t first = 0;
  while (first + 1 < shape.size() && shape[first] == 1) ++first;
  return {shape.begin() + static_cast<std::ptrdiff_t>(first), shape.end()};
}

enum class Layout { kRowsMajor, kAnchorMajor, kWrong, kAmbiguous };

// [rows, anchors] or [anchors, rows].
Layout layoutOf(const Tensor& t, int64_t rows, int64_t anchors) {
  const std::vector<int64_t> s = withoutBatch(t.shape());
  if (s.size() != 2) {
    // A flat run of the right count could be either.
    return s.size() == 1 && s[0] == rows * anchors ? Layout::kAmbiguous : Layout::kWrong;
  }
  const bool rowsMajor = s[0] == rows && s[1] == anchors;
  const bool anchorMajor = s[0] == anchors && s[1] == rows;
  if (rowsMajor && anchorMajor) return Layout::kAmbiguous;
  if (rowsMajor) return Layout::kRowsMajor;
  if (anchorMajor) return Layout::kAnchorMajor;
  return Layout::kWrong;
}

std::string shapeText(const Tensor& t) {
  std::string text = "[";
  for (size_t i = 0; i < t.shape().size(); ++i) {
    if (i > 0) text += ", ";
    text += std::to_string(t.shape()[i]);
  }
  return text + "]";
}

// A contiguous [rows, anchors] copy of a [.., anchors, rows] tensor.
Tensor transposedCopy(const Tensor& t, int64_t rows, int64_t anchors) {
  const std::vector<int64_t>& st = t.strides();
  const size_t n = st.size();
  const Tensor view({rows, anchors}, {st[n - 1], st[n - 2]}, t.dataType(), t.storage(), t.offset());
  return Tensor::fromFloats({rows, anchors}, view.toFloats());
}

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream in(text);
  while (std::getline(in, part, sep)) parts.push_back(part);
  return parts;
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
  return boxes.fitsStorage() && scores.fitsStorage() && boxes.count() == 4 * n &&
         scores.count() == (numClasses + 1) * n && layoutOf(boxes, 4, n) == Layout::kRowsMajor &&
         layoutOf(scores, numClasses + 1, n) == Layout::kRowsMajor;
}

std::optional<SSDPostProcessor::Outputs> SSDPostProcessor::canonicalOutputs(
    const Tensor& boxes, const Tensor& scores, std::string* why) const {
  const int64_t n = numAnchors;
  auto fail = [&](std::string message) -> std::optional<Outputs> {
    if (why) *why = std::move(message);
    return std::nullopt;
  };
  if (!boxes.fitsStorage() || !scores.fitsStorage()) {
    return fail("a detector output addresses elements beyond its storage");
  }
  Outputs out{boxes, scores};
  const struct {
    Tensor& tensor;
    int64_t rows;
    const char* what;
  } parts[] = {{out.boxes, 4, "box encodings"}, {out.scores, numClasses + 1, "class scores"}};
  for (const auto& part : parts) {
    const std::string expected = "[" + std::to_string(part.rows) + ", " + std::to_string(n) +
                                 "] or [" + std::to_string(n) + ", " + std::to_string(part.rows) +
                                 "]";
    switch (layoutOf(part.tensor, part.rows, n)) {
      case Layout::kRowsMajor:
        break;
      case Layout::kAnchorMajor:
        part.tensor = transposedCopy(part.tensor, part.rows, n);
        break;
      case Layout::kAmbiguous:
        return fail(std::string(part.what) + " of shape " + shapeText(part.tensor) +
                    " do not say their layout; expected " + expected);
      case Layout::kWrong:
        return fail(std::string(part.what) + " of shape " + shapeText(part.tensor) + "; expected " +
                    expected);
    }
  }
  return out;
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
  // The fast path reads float32 scores as their bit patterns, which order like the values for
  // non-negative numbers; anything else takes the plain route, which gives the same output.
  if (!(scores.isContiguous() && scores.dataType() == TensorDataType::kFloat32) ||
      !(threshold >= 0) || threshold > std::numeric_limits<float>::max()) {
    return nonMaximumSupression(pruneLowScoring(boxes, scores));
  }
  // The largest float not above the threshold: a float score passes (as a double, strictly above
  // the threshold) exactly when its bits are above these.
  float tf = static_cast<float>(threshold);
  if (static_cast<double>(tf) > threshold) tf = std::nextafter(tf, -1.0f);
  const int32_t tbits = std::bit_cast<int32_t>(tf);
  constexpr int32_t kInfBits = 0x7f800000;  // above: not a number, which never passes

  const float* sv = static_cast<const float*>(scores.data());
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

  // Candidate key: score bits above, inverted anchor index below, so that the largest key is the
  // highest score and, among equal scores, the lowest anchor (the order a stable sort gives).
  auto keyOf = [](int32_t bits, size_t b) {
    return (static_cast<uint64_t>(bits) << 32) | (0xFFFFFFFFu - b);
  };
  // A class rarely needs more than a few dozen candidates to keep its ten boxes: the scan keeps
  // only the best kTop (a small min-heap) and the rest is gathered only when those run out.
  constexpr size_t kTop = 32;
  constexpr size_t kChunk = 16;
  auto chunkMax = [](const float* p) {
    int32_t m = std::numeric_limits<int32_t>::min();
    for (size_t k = 0; k < kChunk; ++k) m = std::max(m, std::bit_cast<int32_t>(p[k]));
    return m;
  };
  std::vector<uint64_t> top, rest;
  top.reserve(kTop);
  std::vector<Prediction> out;
  int kept[kMaxBoxesPerClass];
  float keptScores[kMaxBoxesPerClass];

  for (int c = 1; c <= numClasses; ++c) {
    const float* row = sv + static_cast<size_t>(c) * n;
    top.clear();
    size_t candidates = 0;
    for (size_t b0 = 0; b0 < n; b0 += kChunk) {
      const size_t end = std::min(b0 + kChunk, n);
      // Most chunks hold nothing above the threshold: one vectorisable test skips them.
      if (end - b0 == kChunk && chunkMax(row + b0) <= tbits) continue;
      for (size_t b = b0; b < end; ++b) {
        const int32_t bits = std::bit_cast<int32_t>(row[b]);
        if (bits <= tbits || bits > kInfBits) continue;
        ++candidates;
        const uint64_t key = keyOf(bits, b);
        if (top.size() < kTop) {
          top.push_back(key);
          std::push_heap(top.begin(), top.end(), std::greater<>());
        } else if (key > top.front()) {
          std::pop_heap(top.begin(), top.end(), std::greater<>());
          top.back() = key;
          std::push_heap(top.begin(), top.end(), std::greater<>());
        }
      }
    }
    if (top.empty()) continue;
    std::sort(top.begin(), top.end(), std::greater<>());
    const uint64_t lowestTop = top.back();
    int numKept = 0;
    size_t next = 0;
    bool gathered = false;
    while (numKept < kMaxBoxesPerClass) {
      uint64_t key;
      if (next < top.size()) {
        key = top[next++];
      } else {
        if (!gathered) {
          gathered = true;
          rest.clear();
          if (candidates > top.size()) {
            for (size_t b = 0; b < n; ++b) {
              const int32_t bits = std::bit_cast<int32_t>(row[b]);
              if (bits > tbits && bits <= kInfBits && keyOf(bits, b) < lowestTop) {
                rest.push_back(keyOf(bits, b));
              }
            }
            std::make_heap(rest.begin(), rest.end());
          }
        }
        if (rest.empty()) break;
        std::pop_heap(rest.begin(), rest.end());
        key = rest.back();
        rest.pop_back();
      }
      const int index = static_cast<int>(0xFFFFFFFFu - static_cast<uint32_t>(key));
      const Rect& r = rectOf(static_cast<size_t>(index));
      bool keep = true;
      for (int k = 0; k < numKept; ++k) {
        if (IOU(r, rects[static_cast<size_t>(kept[k])]) > kIouThreshold) {
          keep = false;
          break;
        }
      }
      if (keep) {
        kept[numKept] = index;
        keptScores[numKept] = std::bit_cast<float>(static_cast<int32_t>(key >> 32));
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
