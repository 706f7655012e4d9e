#include "src/scene/scene_understanding.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <thread>

#include "src/platform/asio_dispatcher.h"
#include "src/platform/memory_logger.h"
#include "src/platform/vision/scripted_detector_model.h"
#include "src/scene/ssd_anchors.h"

namespace omra {
namespace {

constexpr int kN = SSDAnchors::kNumAnchors;

// Detector outputs with one chair (anchor 700, score 0.9) and a 2x2x2 activation.
DetectorResult chairOutputs() {
  std::vector<float> scores(91 * kN, 0.f);
  scores[62 * kN + 700] = 0.9f;
  return ScriptedDetectorModel::outputs(Tensor::fromFloats({91, kN}, scores),
                                        Tensor::fromFloats({4, kN}, std::vector<float>(4 * kN)),
                                        Tensor::fromFloats({2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}));
}

ArFrame frameAt(float x, float roll = 0) {
  ArFrame f;
  f.camera.transform.columns[3] = {x, 0, 0, 1};
  f.camera.eulerAngles = {0, 0, roll};
  f.capturedImage = {8, 6, 32, std::make_shared<std::vector<uint8_t>>(32 * 6)};
  f.hitTest = [](Float2 p, HitTestType) {
    HitTestResult r;
    r.worldTransform.columns[3] = {p.x, p.y, -2, 1};
    return std::vector<HitTestResult>{r};
  };
  return f;
}

bool waitFor(const std::function<bool()>& pred) {
  for (int i = 0; i < 2000; ++i) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return pred();
}

class SceneUnderstandingTest : public ::testing::Test {
 protected:
  void make(DetectorScript script = [](const PixelBuffer&, ImageOrientation, CropAndScale) {
    return chairOutputs();
  }) {
    model_ = std::make_shared<ScriptedDetectorModel>(std::move(script));
    pipeline_ = std::make_unique<SceneUnderstanding>(
        800, 600,
        [this](const std::vector<DetectedObject>&, std::shared_ptr<const Activation> a) {
          std::lock_guard<std::mutex> lock(mutex_);
          activations_.push_back(std::move(a));
        },
        model_, dispatcher_);
  }
  size_t results() {
    std::lock_guard<std::mutex> lock(mutex_);
    return activations_.size();
  }
  // Offers a frame and waits until the pipeline is idle again.
  void offer(const ArFrame& f) {
    pipeline_->processImage(f, counter_);
    ASSERT_TRUE(waitFor([&] { return !pipeline_->updateInProgress(); }));
  }
  // The first four frames only fill the motion window.
  void warmUp() {
    for (int i = 0; i < 4; ++i) offer(frameAt(0.1f * i));
  }

  // Declared so that the pipeline goes first, then the dispatcher's threads, then what they write.
  std::mutex mutex_;
  std::vector<std::shared_ptr<const Activation>> activations_;
  int64_t counter_ = 0;
  std::shared_ptr<AsioDispatcher> dispatcher_ = std::make_shared<AsioDispatcher>(2);
  std::shared_ptr<ScriptedDetectorModel> model_;
  std::unique_ptr<SceneUnderstanding> pipeline_;
};

TEST_F(SceneUnderstandingTest, FirstFourFramesAndStillFramesNeverDetect) {
  make();
  warmUp();
  EXPECT_EQ(counter_, 0);
  offer(frameAt(0.4f));
  EXPECT_EQ(counter_, 1);
  ASSERT_TRUE(waitFor([&] { return results() == 1; }));
  EXPECT_EQ(model_->crops(), std::vector<CropAndScale>{CropAndScale::kCenterCrop});
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_EQ(activations_[0]->predictions.size(), 1u);
    EXPECT_EQ(activations_[0]->getFullVector(), (std::vector<double>{1, 2, 3, 4, 5, 6, 7, 8}));
  }
  // A camera that stops: once the window holds only the still pose, nothing more is detected.
  for (int i = 0; i < 10; ++i) offer(frameAt(0.5f));
  EXPECT_LE(counter_, 4);
  const int64_t settled = counter_;
  for (int i = 0; i < 10; ++i) offer(frameAt(0.5f));
  EXPECT_EQ(counter_, settled);
}

TEST_F(SceneUnderstandingTest, RotationAloneCountsAsMoving) {
  // The mean turn over the window is 3 * rate / 4: 0.0015 is above the 0.001 threshold, 0.0013
  // below it.
  for (const auto& [rate, frames, detections] :
       std::vector<std::tuple<float, int, int64_t>>{{0.0015f, 5, 1}, {0.0013f, 8, 0}}) {
    make();
    counter_ = 0;
    for (int i = 0; i < frames; ++i) {
      ArFrame f = frameAt(0);
      f.camera.eulerAngles.x = rate * i;
      offer(f);
    }
    EXPECT_EQ(counter_, detections) << rate;
  }
}

TEST_F(SceneUnderstandingTest, BusyFramesAreDroppedUntilTheHandOverReturns) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  // Never leave the model blocked, even when an assertion ends the test early.
  std::shared_ptr<void> unblock(nullptr, [&](void*) {
    if (released.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
      release.set_value();
  });
  make([released](const PixelBuffer&, ImageOrientation, CropAndScale) {
    released.wait();
    return chairOutputs();
  });
  warmUp();
  pipeline_->processImage(frameAt(0.4f), counter_);
  ASSERT_TRUE(waitFor([&] { return model_->calls() == 1; }));
  EXPECT_TRUE(pipeline_->updateInProgress());
  pipeline_->processImage(frameAt(0.5f), counter_);  // busy: dropped
  EXPECT_EQ(counter_, 1);
  unblock.reset();
  ASSERT_TRUE(waitFor([&] { return results() == 1 && !pipeline_->updateInProgress(); }));
  offer(frameAt(0.6f));
  EXPECT_EQ(counter_, 2);
  ASSERT_TRUE(waitFor([&] { return results() == 2; }));
  EXPECT_EQ(model_->calls(), 2);
}

TEST_F(SceneUnderstandingTest, RollChoosesTheRequestOrientation) {
  make();
  warmUp();
  const float rolls[] = {0.f, -1.5707963f, 3.0f};
  for (int i = 0; i < 3; ++i) {
    offer(frameAt(0.5f + 0.1f * i, rolls[i]));
    ASSERT_TRUE(waitFor([&] { return results() == static_cast<size_t>(i + 1); }));
  }
  EXPECT_EQ(model_->orientations(),
            (std::vector<ImageOrientation>{ImageOrientation::kUp, ImageOrientation::kRight,
                                           ImageOrientation::kDown}));
}

TEST(OrientationFromRollTest, AsymmetricBoundsAreKept) {
  using P = phoneOrientation;
  const std::pair<float, P> cases[] = {{1.5707963f, P::landscapeLeft}, {-0.78539813f, P::portrait},
                                       {-0.785f, P::landscapeLeft},    {-2.3561945f, P::portrait},
                                       {-2.357f, P::landscapeRight},   {1.5708f, P::landscapeRight},
                                       {0.f, P::landscapeLeft},        {-1.5707963f, P::portrait}};
  for (const auto& [roll, want] : cases) EXPECT_EQ(orientationFromRoll(roll), want) << roll;
}

class ObjectDetection2DTest : public ::testing::Test {
 protected:
  std::shared_ptr<AsioDispatcher> dispatcher_ = std::make_shared<AsioDispatcher>(2);
  std::shared_ptr<MemoryLogger> logger_ = std::make_shared<MemoryLogger>();
};

// Scores of chairOutputs() laid out anchor-major, as exported SSD models give them.
Tensor anchorMajorScores(std::vector<int64_t> shape) {
  const std::vector<float> classMajor = chairOutputs().outputs[1].tensor.toFloats();
  std::vector<float> values(classMajor.size());
  for (int64_t c = 0; c < 91; ++c) {
    for (int64_t a = 0; a < kN; ++a) values[a * 91 + c] = classMajor[c * kN + a];
  }
  return Tensor::fromFloats(std::move(shape), values);
}

// A model that misbehaves is logged once, calls nobody, and never stops detection: every frame
// still gets its run.
TEST_F(ObjectDetection2DTest, UnexpectedResultsCallNobodyLogOnceAndReleaseTheSemaphore) {
  auto spoil = [](std::function<void(DetectorResult&)> f) {
    DetectorResult r = chairOutputs();
    f(r);
    return r;
  };
  auto shortStorage = std::make_shared<std::vector<std::byte>>(4 * kN * sizeof(float) - 4);
  const struct {
    const char* name;
    DetectorResult result;
    const char* says;
  } cases[] = {
      {"three outputs", spoil([](DetectorResult& r) { r.outputs.pop_back(); }), "3 outputs"},
      {"boxes one anchor short", spoil([](DetectorResult& r) {
         r.outputs[2].tensor = Tensor::fromFloats({4, kN - 1}, std::vector<float>(4 * (kN - 1)));
       }),
       "box encodings of shape [4, 1916]"},
      {"scores one class short", spoil([](DetectorResult& r) {
         r.outputs[1].tensor = Tensor::fromFloats({90, kN}, std::vector<float>(90 * kN));
       }),
       "class scores of shape [90, 1917]"},
      {"view past its storage", spoil([&](DetectorResult& r) {
         r.outputs[2].tensor = Tensor({4, kN}, {kN, 1}, TensorDataType::kFloat32, shortStorage);
       }),
       "beyond its storage"},
      {"negative stride before the start", spoil([&](DetectorResult& r) {
         r.outputs[2].tensor = Tensor({4, kN}, {-kN, 1}, TensorDataType::kFloat32, shortStorage);
       }),
       "beyond its storage"},
      {"flat scores", spoil([](DetectorResult& r) {
         r.outputs[1].tensor = Tensor::fromFloats({91 * kN}, std::vector<float>(91 * kN));
       }),
       "do not say their layout"},
      {"flat activation", spoil([](DetectorResult& r) {
         r.outputs[3].tensor = Tensor::fromFloats({2}, {1, 2});
       }),
       "three-dimensional"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto model = ScriptedDetectorModel::returning(c.result);
    auto logger = std::make_shared<MemoryLogger>();
    ObjectDetection2D d(800, 600, model, *dispatcher_, logger);
    std::atomic<int> calls{0};
    auto count = [&](const std::vector<Prediction>&, std::shared_ptr<const Activation>) {
      ++calls;
    };
    auto frames = std::async(std::launch::async, [&] {
      for (int i = 0; i < 3; ++i) {
        d.classifyImage(frameAt(0).capturedImage, count, phoneOrientation::portrait);
      }
    });
    const bool finished = frames.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    if (!finished) d.close();  // lets a stuck run return, so that the failure is reported
    frames.get();
    EXPECT_TRUE(finished) << "a bad result kept the semaphore";
    EXPECT_EQ(model->calls(), 3);
    EXPECT_EQ(calls, 0);
    size_t reports = 0;
    for (const MemoryLogger::Line& line : logger->lines()) {
      if (line.text.find("Detector outputs dropped") == std::string::npos) continue;
      ++reports;
      EXPECT_EQ(line.level, LogLevel::kError);
      EXPECT_NE(line.text.find(c.says), std::string::npos) << line.text;
    }
    EXPECT_EQ(reports, 1u);
  }
}

// The layouts are told apart by shape, so the chair is found in each.
TEST_F(ObjectDetection2DTest, AnchorMajorOutputsAreReadLikeClassMajorOnes) {
  auto boxesAnchorMajor = [](std::vector<int64_t> shape) {
    return Tensor::fromFloats(std::move(shape), std::vector<float>(4 * kN));
  };
  const struct {
    const char* name;
    Tensor scores, boxes;
  } cases[] = {
      {"class-major", chairOutputs().outputs[1].tensor, chairOutputs().outputs[2].tensor},
      {"class-major with a batch",
       Tensor::fromFloats({1, 91, kN}, chairOutputs().outputs[1].tensor.toFloats()),
       Tensor::fromFloats({1, 4, kN}, std::vector<float>(4 * kN))},
      {"anchor-major", anchorMajorScores({kN, 91}), boxesAnchorMajor({kN, 4})},
      {"anchor-major with a batch", anchorMajorScores({1, kN, 91}), boxesAnchorMajor({1, kN, 4})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    DetectorResult r = chairOutputs();
    r.outputs[1].tensor = c.scores;
    r.outputs[2].tensor = c.boxes;
    ObjectDetection2D d(800, 600, ScriptedDetectorModel::returning(r), *dispatcher_, logger_);
    std::vector<Prediction> got;
    d.classifyImage(
        frameAt(0).capturedImage,
        [&](const std::vector<Prediction>& p, std::shared_ptr<const Activation>) { got = p; },
        phoneOrientation::portrait);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(d.classNames()[static_cast<size_t>(got[0].detectedClass)], "chair");
    EXPECT_NEAR(got[0].score, 0.9, 1e-6);
  }
}

TEST_F(ObjectDetection2DTest, FailedRunsReleaseTheSemaphoreAndResultsHideOverlays) {
  int run = 0;
  auto model = std::make_shared<ScriptedDetectorModel>(
      [&run](const PixelBuffer&, ImageOrientation, CropAndScale) -> DetectorResult {
        return ++run == 1 ? DetectorResult{{}, "model failed"} : chairOutputs();
      });
  ObjectDetection2D d(800, 600, model, *dispatcher_, logger_);
  d.setBoundingBoxes(std::vector<BoundingBox2D>(100));
  std::vector<Prediction> got;
  auto keep = [&](const std::vector<Prediction>& p, std::shared_ptr<const Activation>) { got = p; };
  d.classifyImage(frameAt(0).capturedImage, keep, phoneOrientation::landscapeRight);
  ASSERT_FALSE(logger_->lines().empty());
  d.classifyImage(frameAt(0).capturedImage, keep, phoneOrientation::landscapeRight);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(d.classNames()[static_cast<size_t>(got[0].detectedClass)], "chair");
  EXPECT_EQ(model->orientations().back(), ImageOrientation::kDown);
  ASSERT_TRUE(waitFor([&] { return d.boundingBoxes()[99].shapeHidden; }));
  EXPECT_TRUE(d.boundingBoxes()[0].textHidden);
}

TEST(ActivationTest, FullVectorWalksTheFirstThreeDimensions) {
  Tensor t = Tensor::fromFloats({2, 3, 2}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  // A transposed view (2, 2, 3) reads through its strides.
  Tensor view({2, 2, 3}, {6, 1, 2}, TensorDataType::kFloat32, t.storage());
  EXPECT_EQ(Activation({}, view).getFullVector(),
            (std::vector<double>{0, 2, 4, 1, 3, 5, 6, 8, 10, 7, 9, 11}));
  EXPECT_DEATH(Activation({}, Tensor::fromFloats({4}, {1, 2, 3, 4})).getFullVector(),
               "three dimensions");
}

}  // namespace
}  // namespace omra
