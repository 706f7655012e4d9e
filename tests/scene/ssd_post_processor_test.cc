#include "src/scene/ssd_post_processor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "src/scene/non_max_suppression.h"
#include "src/scene/ssd_anchors.h"

namespace omra {
namespace {

constexpr int kN = SSDAnchors::kNumAnchors;
constexpr int kClasses = 90;

// Independent anchor computation: decompose the row number into (map, cell, shape) instead of
// walking the maps in order.
std::array<double, 4> expectedAnchor(int row) {
  const int sizes[] = {19, 10, 5, 3, 2, 1};
  int k = 0, base = 0;
  while (true) {
    const int perCell = k == 0 ? 3 : 6;
    const int count = sizes[k] * sizes[k] * perCell;
    if (row < base + count) break;
    base += count;
    ++k;
  }
  const int perCell = k == 0 ? 3 : 6;
  const int local = row - base, cell = local / perCell, shape = local % perCell;
  const int n = sizes[k], i = cell / n, j = cell % n;
  auto s = [](int m) { return m == 6 ? 1.0 : 0.2 + 0.15 * m; };  // m = 0-based map
  double scale, aspect;
  if (k == 0) {
    const double sc[] = {0.1, 0.2, 0.2}, as[] = {1, 2, 0.5};
    scale = sc[shape], aspect = as[shape];
  } else {
    const double as[] = {1, 2, 0.5, 3, 1.0 / 3, 1};
    aspect = as[shape];
    scale = shape == 5 ? std::sqrt(s(k) * s(k + 1)) : s(k);
  }
  const double h = scale / std::sqrt(aspect), w = scale * std::sqrt(aspect);
  const double yc = (i + 0.5) / n, xc = (j + 0.5) / n;
  return {yc - h / 2, xc - w / 2, yc + h / 2, xc + w / 2};
}

TEST(SSDAnchorsTest, AllRowsMatchAnIndependentComputation) {
  const auto& rows = SSDAnchors::ssdAnchors();
  ASSERT_EQ(rows.size(), 1917u);
  for (int r = 0; r < kN; ++r) {
    const auto want = expectedAnchor(r);
    for (int c = 0; c < 4; ++c)
      ASSERT_NEAR(rows[r][c], want[c], 1e-6) << "row " << r << " col " << c;
  }
}

TEST(SSDAnchorsTest, ReproducesTheDocumentedFirstRows) {
  const double want[6][4] = {
      {-0.023684, -0.023684, 0.076316, 0.076316}, {-0.044395, -0.115106, 0.097026, 0.167737},
      {-0.115106, -0.044395, 0.167737, 0.097026}, {-0.023684, 0.028947, 0.076316, 0.128947},
      {-0.044395, -0.062474, 0.097026, 0.220369}, {-0.115106, 0.008237, 0.167737, 0.149658}};
  const auto& rows = SSDAnchors::ssdAnchors();
  for (int r = 0; r < 6; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(rows[r][c], want[r][c], 5e-7) << r << "," << c;
}

// Tensors for a detector that sees nothing, with helpers to place a detection.
struct Outputs {
  std::vector<float> boxes = std::vector<float>(4 * kN, 0.f);
  std::vector<float> scores = std::vector<float>((kClasses + 1) * kN, 0.f);
  void set(int cls, int anchor, float score, AnchorEncoding e = {}) {
    scores[cls * kN + anchor] = score;
    boxes[anchor] = static_cast<float>(e.ty);
    boxes[kN + anchor] = static_cast<float>(e.tx);
    boxes[2 * kN + anchor] = static_cast<float>(e.th);
    boxes[3 * kN + anchor] = static_cast<float>(e.tw);
  }
  Tensor boxTensor() const { return Tensor::fromFloats({4, kN}, boxes); }
  Tensor scoreTensor() const { return Tensor::fromFloats({kClasses + 1, kN}, scores); }
};

std::vector<Prediction> twoStep(const SSDPostProcessor& p, const Outputs& o) {
  return p.nonMaximumSupression(p.pruneLowScoring(o.boxTensor(), o.scoreTensor()));
}

TEST(SSDPostProcessorTest, ClassNamesAreTheNinetyOneLabels) {
  SSDPostProcessor p(kN, kClasses, 0.01);
  ASSERT_TRUE(p.classNames.has_value());
  ASSERT_EQ(p.classNames->size(), 91u);
  EXPECT_EQ((*p.classNames)[1], "person");
  EXPECT_EQ((*p.classNames)[10], "traffic light");
  EXPECT_EQ((*p.classNames)[12], "???");
  EXPECT_EQ((*p.classNames)[62], "chair");
  EXPECT_EQ((*p.classNames)[72], "tv");
  EXPECT_EQ((*p.classNames)[90], "toothbrush");
}

TEST(SSDPostProcessorTest, ThresholdIsStrictAndBackgroundIsNeverRead) {
  SSDPostProcessor p(kN, kClasses, 0.01);
  std::vector<double> scores((kClasses + 1) * kN, 0.0);
  scores[0 * kN + 5] = 0.99;                       // background
  scores[3 * kN + 7] = 0.01;                       // equal: not taken
  scores[4 * kN + 9] = std::nextafter(0.01, 1.0);  // just above: taken
  const auto lists = p.pruneLowScoring(Tensor::fromDoubles({4, kN}, std::vector<double>(4 * kN)),
                                       Tensor::fromDoubles({kClasses + 1, kN}, scores));
  ASSERT_EQ(lists.size(), 91u);
  EXPECT_TRUE(lists[0].empty());
  EXPECT_TRUE(lists[3].empty());
  ASSERT_EQ(lists[4].size(), 1u);
  EXPECT_EQ(lists[4][0].index, 9);
  EXPECT_EQ(lists[4][0].detectedClass, 4);
  EXPECT_EQ(lists[4][0].anchor, OrientedBoundingBox::fromAnchor(SSDAnchors::ssdAnchors()[9]));
}

void expectBoxNear(const OrientedBoundingBox& got, std::array<double, 4> want) {
  const double g[] = {got.yMin, got.xMin, got.yMax, got.xMax};
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(g[i], want[i], 1e-12) << i;
}

TEST(SSDPostProcessorTest, DecodingFollowsTheBoxCoder) {
  const OrientedBoundingBox anchor{0.2, 0.3, 0.6, 0.5, 300, 300};
  // Zero encoding is the anchor itself.
  expectBoxNear(decodeBox(anchor, {}), {0.2, 0.3, 0.6, 0.5});
  // ty = 10 moves the centre by one anchor height (to 0.8), tx = -5 by half a width (to 0.3);
  // th = 5 * ln 2 doubles the height.
  expectBoxNear(decodeBox(anchor, {10, -5, 5 * std::log(2.0), 0}), {0.4, 0.2, 1.2, 0.4});
  // encodeBox is its inverse.
  const OrientedBoundingBox box{0.1, 0.15, 0.45, 0.7, 300, 300};
  expectBoxNear(decodeBox(anchor, encodeBox(anchor, box)), {0.1, 0.15, 0.45, 0.7});
}

TEST(SSDPostProcessorTest, SuppressionKeepsIouOfExactlyPointThreeAndDropsAbove) {
  SSDPostProcessor p(kN, kClasses, 0.01);
  const int anchor = 1000;
  // Same centre, area scaled by f: IOU with the anchor box is f.
  for (const auto& [area, bothKept] :
       std::vector<std::pair<double, bool>>{{0.3, true}, {0.31, false}, {0.29, true}}) {
    Outputs o;
    o.set(5, anchor, 0.9f);
    const int other = anchor + 6;  // a different anchor of the same cell shape one cell over
    const auto& rows = SSDAnchors::ssdAnchors();
    const auto a = OrientedBoundingBox::fromAnchor(rows[anchor]);
    OrientedBoundingBox target = a;
    const double k = std::sqrt(area) / 2;
    const double yc = (a.yMin + a.yMax) / 2, xc = (a.xMin + a.xMax) / 2;
    target.yMin = yc - (a.yMax - a.yMin) * k, target.yMax = yc + (a.yMax - a.yMin) * k;
    target.xMin = xc - (a.xMax - a.xMin) * k, target.xMax = xc + (a.xMax - a.xMin) * k;
    o.set(5, other, 0.8f, encodeBox(OrientedBoundingBox::fromAnchor(rows[other]), target));
    const auto out = twoStep(p, o);
    ASSERT_EQ(out.size(), bothKept ? 2u : 1u) << "area " << area;
    EXPECT_EQ(out[0].index, anchor);
    EXPECT_EQ(p.process(o.boxTensor(), o.scoreTensor()), out);
  }
}

TEST(SSDPostProcessorTest, ClassesAreIndependentAndCappedAtTen) {
  SSDPostProcessor p(kN, kClasses, 0.01);
  Outputs o;
  // 15 well separated boxes of class 7 (every other cell of the 19x19 map, first shape), and in
  // class 9 one box identical to one of them.
  auto cellAnchor = [](int i) { return ((i / 3) * 2 * 19 + (i % 3) * 2) * 3; };
  for (int i = 0; i < 15; ++i) o.set(7, cellAnchor(i), 0.5f + 0.01f * i);
  o.set(9, 0, 0.95f);
  const auto out = twoStep(p, o);
  ASSERT_EQ(out.size(), 11u);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(out[i].detectedClass, 7);
    EXPECT_EQ(out[i].index, cellAnchor(14 - i)) << "kept in decreasing score";
  }
  EXPECT_EQ(out[10].detectedClass, 9);
  EXPECT_EQ(out[10].index, 0);
  EXPECT_EQ(p.process(o.boxTensor(), o.scoreTensor()), out);
}

TEST(SSDPostProcessorTest, ManySuppressedLeadersStillYieldTheNextBest) {
  // Sixty anchors all decode to one box with the highest scores; behind them, well separated
  // boxes. One of the sixty survives and the next nine separate boxes fill the class.
  SSDPostProcessor p(kN, kClasses, 0.01);
  Outputs o;
  const auto& rows = SSDAnchors::ssdAnchors();
  const OrientedBoundingBox same{0.4, 0.4, 0.6, 0.6, 300, 300};
  for (int i = 0; i < 60; ++i) {
    const int a = 1083 + i;  // the 10x10 map
    o.set(5, a, 0.9f - 0.001f * i, encodeBox(OrientedBoundingBox::fromAnchor(rows[a]), same));
  }
  for (int i = 0; i < 12; ++i) o.set(5, ((i / 4) * 2 * 19 + (i % 4) * 2) * 3, 0.5f - 0.01f * i);
  const auto out = twoStep(p, o);
  ASSERT_EQ(out.size(), 10u);
  EXPECT_EQ(out[0].index, 1083);
  EXPECT_EQ(out[1].index, 0);
  EXPECT_EQ(p.process(o.boxTensor(), o.scoreTensor()), out);
}

TEST(SSDPostProcessorTest, FusedPathMatchesTheTwoStepApiOnRandomTensors) {
  SSDPostProcessor p(kN, kClasses, 0.01);
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> enc(-3.f, 3.f);
  for (float density : {0.001f, 0.3f, 1.0f}) {
    Outputs o;
    std::uniform_real_distribution<float> u(0.f, 1.f);
    for (auto& b : o.boxes) b = enc(rng);
    for (size_t i = kN; i < o.scores.size(); ++i) o.scores[i] = u(rng) < density ? u(rng) : 0.f;
    const auto fused = p.process(o.boxTensor(), o.scoreTensor());
    EXPECT_EQ(fused, twoStep(p, o)) << "density " << density;
    EXPECT_LE(fused.size(), 900u);
  }
}

TEST(SSDPostProcessorTest, WrongSizedTensorsAreRefusedBeforeReading) {
  SSDPostProcessor p(kN, kClasses, 0.01);
  Outputs o;
  EXPECT_TRUE(p.acceptsOutputs(o.boxTensor(), o.scoreTensor()));
  EXPECT_FALSE(p.acceptsOutputs(Tensor::fromFloats({4, kN - 1}, std::vector<float>(4 * (kN - 1))),
                                o.scoreTensor()));
  EXPECT_FALSE(
      p.acceptsOutputs(o.boxTensor(), Tensor::fromFloats({90, kN}, std::vector<float>(90 * kN))));
  EXPECT_FALSE(p.acceptsOutputs(Tensor(), Tensor()));
  EXPECT_DEATH(p.process(Tensor(), o.scoreTensor()), "wrong size");
}

TEST(NonMaxSuppressionTest, IouRules) {
  const Rect a{0, 0, 10, 10};
  EXPECT_FLOAT_EQ(IOU(a, a), 1.f);
  EXPECT_FLOAT_EQ(IOU(a, {0, 0, 3, 10}), 0.3f);
  EXPECT_FLOAT_EQ(IOU(a, {20, 20, 5, 5}), 0.f);
  EXPECT_FLOAT_EQ(IOU(a, {5, 0, 10, 10}), 50.f / 150.f);
  EXPECT_FLOAT_EQ(IOU(a, {0, 0, 0, 10}), 0.f);       // zero extent never overlaps
  EXPECT_FLOAT_EQ(IOU({10, 10, -10, -10}, a), 1.f);  // standardised like a platform rectangle
}

TEST(NonMaxSuppressionTest, GreedyGeneralHelpers) {
  const std::vector<NmsPrediction> preds = {
      {0, 0.5f, {0, 0, 10, 10}},   // 0
      {0, 0.9f, {0, 0, 3, 10}},    // 1: IOU with 0 is exactly 0.3
      {0, 0.8f, {1, 0, 10, 10}},   // 2: overlaps 0 heavily
      {1, 0.7f, {0, 0, 10, 10}},   // 3: other class, same box as 0
      {1, 0.05f, {50, 50, 5, 5}},  // 4: below the multi-class score threshold
  };
  EXPECT_EQ(nonMaxSuppression(preds, 0.3f, 10), (std::vector<int>{1, 2, 4}));
  EXPECT_EQ(nonMaxSuppression(preds, {0, 1}, 0.3f, 10), (std::vector<int>{1, 0}));
  EXPECT_EQ(nonMaxSuppression(preds, {0, 1, 2}, 0.3f, 1), (std::vector<int>{1}));
  EXPECT_EQ(nonMaxSuppressionMultiClass(2, preds, 0.1f, 0.3f, 10, 10), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(nonMaxSuppressionMultiClass(2, preds, 0.1f, 0.3f, 10, 2), (std::vector<int>{1, 2}));
}

TEST(NonMaxSuppressionTest, ArrayHelpers) {
  const std::vector<float> v = {0.2f, 0.9f, 0.1f, 0.9f};
  EXPECT_EQ(argmax(v), (std::pair<int, float>{1, 0.9f}));
  EXPECT_EQ(argmax(std::vector<float>{}).first, -1);
  EXPECT_EQ(argsort(v, [](float a, float b) { return a > b; }), (std::vector<int>{1, 3, 0, 2}));
  EXPECT_EQ(gather(v, {2, 0, 7}), (std::vector<float>{0.1f, 0.2f}));
}

}  // namespace
}  // namespace omra
