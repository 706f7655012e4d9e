#include "sim/ssd_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "sim/frame_image.h"
#include "sim/sim_detector.h"
#include "src/scene/ssd_post_processor.h"
#include "tests/sim/sim_testutil.h"

namespace omra::sim {
namespace {

Detection box(int cls, float score, float yMin, float xMin, float yMax, float xMax) {
  return {cls, score, yMin, xMin, yMax, xMax, 0};
}

std::vector<Prediction> decodeWithTheKit(const SsdTensors& t) {
  SSDPostProcessor post(1917, 90, 0.01);
  Tensor boxes = Tensor::fromFloats({4, kSsdAnchors}, t.boxEncodings);
  Tensor scores = Tensor::fromFloats({kSsdClasses, kSsdAnchors}, t.classScores);
  EXPECT_TRUE(post.acceptsOutputs(boxes, scores));
  return post.nonMaximumSupression(post.pruneLowScoring(boxes, scores));
}

// The kit's own decoding and suppression give back exactly the intended boxes, one per box.
TEST(EncodeDetections, KitDecodingRecoversTheBoxes) {
  const std::vector<std::vector<Detection>> cases = {
      {box(62, 0.9f, 0.2f, 0.3f, 0.6f, 0.5f)},
      // Two of one class far apart, one of another overlapping the first, a tiny and a huge box.
      {box(62, 0.8f, 0.1f, 0.1f, 0.4f, 0.3f), box(62, 0.7f, 0.6f, 0.6f, 0.9f, 0.95f),
       box(63, 0.6f, 0.15f, 0.12f, 0.42f, 0.33f), box(44, 0.55f, 0.50f, 0.50f, 0.53f, 0.52f),
       box(72, 0.95f, -0.05f, -0.02f, 1.02f, 1.05f)},
      // Identical boxes of different classes land on different anchors.
      {box(84, 0.7f, 0.4f, 0.4f, 0.5f, 0.5f), box(86, 0.65f, 0.4f, 0.4f, 0.5f, 0.5f)},
  };
  for (size_t c = 0; c < cases.size(); ++c) {
    SCOPED_TRACE(c);
    std::vector<Prediction> got = decodeWithTheKit(encodeDetections(cases[c], 17 + c));
    ASSERT_EQ(got.size(), cases[c].size());
    for (const Detection& want : cases[c]) {
      auto it = std::find_if(got.begin(), got.end(), [&](const Prediction& p) {
        return p.detectedClass == want.classIndex && std::fabs(p.score - want.score) < 1e-6;
      });
      ASSERT_NE(it, got.end()) << "class " << want.classIndex;
      OrientedBoundingBox b = it->finalPrediction();
      EXPECT_LT(std::max({std::fabs(b.yMin - want.yMin), std::fabs(b.xMin - want.xMin),
                          std::fabs(b.yMax - want.yMax), std::fabs(b.xMax - want.xMax)}),
                1e-5);
    }
  }
}

// Echo anchors exist before suppression (a real detector's several hits) and nothing else scores.
TEST(EncodeDetections, EchoesBeforeSuppressionOnly) {
  SsdTensors t = encodeDetections({box(62, 0.9f, 0.2f, 0.3f, 0.6f, 0.5f)}, 3);
  int above = 0;
  for (size_t i = 0; i < t.classScores.size(); ++i) {
    if (t.classScores[i] > 0.01f) {
      ++above;
      EXPECT_EQ(i / kSsdAnchors, 62u);
      EXPECT_LE(t.classScores[i], 0.9f);
    }
  }
  EXPECT_GE(above, 2);
  EXPECT_LE(above, 3);
  // Invalid boxes and classes are left out rather than written anywhere.
  SsdTensors none =
      encodeDetections({box(0, 0.9f, 0.2f, 0.2f, 0.4f, 0.4f), box(95, 0.9f, 0.2f, 0.2f, 0.4f, 0.4f),
                        box(5, 0.9f, 0.4f, 0.2f, 0.2f, 0.4f)},
                       3);
  EXPECT_EQ(std::count_if(none.classScores.begin(), none.classScores.end(),
                          [](float v) { return v != 0; }),
            0);
}

TEST(FrameTag, RoundTripsAndRejectsDamage) {
  CameraModel cam;
  for (int64_t index : {0LL, 1LL, 255LL, 256LL, 123456LL, 4000000000LL}) {
    PixelBuffer img = renderFrameImage(nullptr, cam, {}, index);
    EXPECT_EQ(readFrameTag(img), index);
  }
  PixelBuffer img = renderFrameImage(nullptr, cam, {}, 77);
  img.row(0)[4 * 2 + 1] ^= 1;  // one channel of one byte pixel
  EXPECT_FALSE(readFrameTag(img).has_value());
  EXPECT_FALSE(readFrameTag(PixelBuffer{}).has_value());
  PixelBuffer narrow = renderFrameImage(nullptr, {4, 4, 60}, {}, 3);
  EXPECT_TRUE(readFrameTag(narrow).has_value());  // widened to hold the tag
}

// The detector stand-in answers for the frame the image shows, in the kit's output order and
// shapes; the boxes it answers with are that frame's.
TEST(SimDetectorModel, AnswersForTheTaggedFrame) {
  const Scenario& s = testing::shortScenario();
  SimDetectorModel model(s.mapping);
  const RecordedFrame* withBoxes = nullptr;
  for (const RecordingEvent& e : s.mapping->events) {
    const auto* f = std::get_if<RecordedFrame>(&e);
    if (f && f->detections.size() >= 2) {
      withBoxes = f;
      break;
    }
  }
  ASSERT_NE(withBoxes, nullptr);
  PixelBuffer img = renderFrameImage(nullptr, CameraModel{}, {}, withBoxes->index);
  DetectorResult r = model.run(img, ImageOrientation::kUp, CropAndScale::kCenterCrop);
  ASSERT_TRUE(r.ok()) << r.error;
  ASSERT_EQ(r.outputs.size(), 4u);
  EXPECT_EQ(r.outputs[1].tensor.count(), 91 * 1917);
  EXPECT_EQ(r.outputs[2].tensor.count(), 4 * 1917);
  EXPECT_EQ(r.outputs[3].tensor.shape().size(), 3u);
  EXPECT_EQ(r.outputs[3].tensor.toFloats(), withBoxes->activation.values);
  SSDPostProcessor post(1917, 90, 0.01);
  auto predictions =
      post.nonMaximumSupression(post.pruneLowScoring(r.outputs[2].tensor, r.outputs[1].tensor));
  ASSERT_FALSE(predictions.empty());
  for (const Prediction& p : predictions) {
    OrientedBoundingBox b = p.finalPrediction();
    bool matched = std::any_of(
        withBoxes->detections.begin(), withBoxes->detections.end(), [&](const Detection& d) {
          return d.classIndex == p.detectedClass && std::fabs(b.xMin - d.xMin) < 1e-5 &&
                 std::fabs(b.yMax - d.yMax) < 1e-5;
        });
    EXPECT_TRUE(matched) << "class " << p.detectedClass;
  }

  PixelBuffer untagged = renderFrameImage(nullptr, CameraModel{}, {}, 0);
  untagged.row(0)[0] = 0;
  EXPECT_FALSE(model.run(untagged, ImageOrientation::kUp, CropAndScale::kCenterCrop).ok());
  PixelBuffer unknown = renderFrameImage(nullptr, CameraModel{}, {}, 999999);
  EXPECT_FALSE(model.run(unknown, ImageOrientation::kUp, CropAndScale::kCenterCrop).ok());
}

}  // namespace
}  // namespace omra::sim
