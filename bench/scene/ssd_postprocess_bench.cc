// SSD post-processing (threshold + per-class suppression) per frame, on realistic and dense
// tensors, against the same pipeline built on OpenCV's NMSBoxes per class. Output must match.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <random>
#include <vector>

#include "src/scene/ssd_anchors.h"
#include "src/scene/ssd_post_processor.h"

namespace omra {
namespace {

constexpr int kN = SSDAnchors::kNumAnchors;
constexpr int kClasses = 90;

struct Frame {
  Tensor boxes, scores;
};

Frame makeFrame(bool dense, std::mt19937& rng) {
  std::uniform_real_distribution<float> u(0.f, 1.f);
  std::normal_distribution<float> enc(0.f, 1.f);
  std::vector<float> boxes(4 * kN), scores((kClasses + 1) * kN);
  for (auto& b : boxes) b = enc(rng);
  if (dense) {
    for (auto& s : scores) s = 0.011f + 0.989f * u(rng);
  } else {
    // A trained detector on a room: background scores, a few objects lighting up clusters of
    // neighbouring anchors in their class.
    for (auto& s : scores) s = 0.009f * u(rng);
    for (int obj = 0; obj < 6; ++obj) {
      const int cls = 1 + static_cast<int>(u(rng) * kClasses);
      const int centre = static_cast<int>(u(rng) * (kN - 40));
      for (int k = 0; k < 40; ++k) scores[cls * kN + centre + k] = 0.02f + 0.9f * u(rng);
    }
  }
  return {Tensor::fromFloats({4, kN}, boxes), Tensor::fromFloats({kClasses + 1, kN}, scores)};
}

// The same pipeline on cv::dnn::NMSBoxes: threshold, decode, NMSBoxes per class, first 10 kept.
std::vector<Prediction> withNmsBoxes(const SSDPostProcessor& p, const Frame& f) {
  const float* s = static_cast<const float*>(f.scores.data());
  const float* e = static_cast<const float*>(f.boxes.data());
  const auto& anchors = SSDAnchors::ssdAnchors();
  std::vector<Prediction> out;
  std::vector<cv::Rect2d> rects;
  std::vector<float> scores;
  std::vector<int> anchorsOf, kept;
  for (int c = 1; c <= kClasses; ++c) {
    rects.clear(), scores.clear(), anchorsOf.clear(), kept.clear();
    for (int b = 0; b < kN; ++b) {
      const double score = s[c * kN + b];
      if (!(p.threshold < score)) continue;
      const auto box = decodeBox(OrientedBoundingBox::fromAnchor(anchors[b]),
                                 {e[b], e[kN + b], e[2 * kN + b], e[3 * kN + b]});
      const Rect r = SSDPostProcessor::modelPixelRect(box);
      rects.emplace_back(r.x, r.y, r.width, r.height);
      scores.push_back(static_cast<float>(score));
      anchorsOf.push_back(b);
    }
    if (rects.empty()) continue;
    cv::dnn::NMSBoxes(rects, scores, 0.f, SSDPostProcessor::kIouThreshold, kept);
    for (size_t k = 0; k < kept.size() && k < SSDPostProcessor::kMaxBoxesPerClass; ++k) {
      const int b = anchorsOf[static_cast<size_t>(kept[k])];
      out.push_back({b, static_cast<double>(scores[static_cast<size_t>(kept[k])]),
                     OrientedBoundingBox::fromAnchor(anchors[b]),
                     AnchorEncoding{e[b], e[kN + b], e[2 * kN + b], e[3 * kN + b]}, c});
    }
  }
  return out;
}

template <typename F>
double medianMs(int runs, F&& f) {
  std::vector<double> t;
  for (int i = 0; i < runs; ++i) {
    const auto a = std::chrono::steady_clock::now();
    f(i);
    t.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - a).count());
  }
  std::nth_element(t.begin(), t.begin() + t.size() / 2, t.end());
  return t[t.size() / 2];
}

int run() {
  cv::setNumThreads(1);
  SSDPostProcessor p(kN, kClasses, 0.01);
  std::mt19937 rng(42);
  int mismatches = 0;
  for (bool dense : {false, true}) {
    std::vector<Frame> frames;
    for (int i = 0; i < 8; ++i) frames.push_back(makeFrame(dense, rng));
    size_t kept = 0;
    for (const Frame& f : frames) {
      const auto ours = p.process(f.boxes, f.scores);
      kept += ours.size();
      if (ours != withNmsBoxes(p, f) ||
          ours != p.nonMaximumSupression(p.pruneLowScoring(f.boxes, f.scores)))
        ++mismatches;
    }
    const int runs = dense ? 40 : 400;
    size_t sink = 0;
    const double ours = medianMs(
        runs, [&](int i) { sink += p.process(frames[i % 8].boxes, frames[i % 8].scores).size(); });
    const double peer =
        medianMs(dense ? 10 : 100, [&](int i) { sink += withNmsBoxes(p, frames[i % 8]).size(); });
    const char* name = dense ? "dense" : "realistic";
    std::printf("# %s: %.1f predictions kept per frame (sink %zu)\n", name, kept / 8.0, sink);
    std::printf("figure ssd_postprocess_%s_ms %.4f ms\n", name, ours);
    std::printf("figure ssd_postprocess_%s_nmsboxes_ms %.4f ms\n", name, peer);
    std::printf("figure ssd_postprocess_%s_speedup %.2f x\n", name, peer / ours);
  }
  std::printf("figure ssd_postprocess_output_mismatches %d frames\n", mismatches);
  return mismatches == 0 ? 0 : 1;
}

}  // namespace
}  // namespace omra

int main() { return omra::run(); }
