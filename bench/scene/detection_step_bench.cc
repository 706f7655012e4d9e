// The whole detection step per frame with a full-size SSD-MobileNet-shaped model (random weights,
// generated here): image preparation, the network, post-processing and 3D tracking. Reports
// ms/frame and the share that is the kit's own work rather than the model's.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <opencv2/core.hpp>
#include <random>
#include <string>
#include <vector>

#include "src/platform/vision/image_ops.h"
#include "src/platform/vision/opencv_dnn_detector_model.h"
#include "src/scene/object_3d_tracker.h"
#include "src/scene/ssd_post_processor.h"

namespace omra {
namespace {

using Clock = std::chrono::steady_clock;
double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double median(std::vector<double> v) {
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

int run() {
  cv::setNumThreads(1);
  const std::filesystem::path dir = std::filesystem::path(OMRA_BINARY_DIR) / "bench_models";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "ssd_mobilenet_full.onnx").string();
  if (!std::filesystem::exists(path)) {
    const std::string cmd = "/usr/bin/python3 " + std::string(OMRA_SOURCE_DIR) +
                            "/scripts/make_ssd_model.py --kind full --seed 3 '" + path + "'";
    if (std::system(cmd.c_str()) != 0) {
      std::fprintf(stderr, "could not generate the model\n");
      return 1;
    }
  }
  std::string error;
  auto model = OpenCvDnnDetectorModel::load(path, {}, &error);
  if (!model) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }

  // A 1920x1440 camera image of noise; hit tests land on a wall 2 m ahead.
  std::mt19937 rng(5);
  PixelBuffer image;
  image.width = 1920, image.height = 1440, image.bytesPerRow = 1920 * 4;
  image.data = std::make_shared<std::vector<uint8_t>>(image.bytesPerRow * image.height);
  for (auto& b : *image.data) b = static_cast<uint8_t>(rng());
  ArFrame frame;
  frame.capturedImage = image;
  frame.hitTest = [](Float2 p, HitTestType) {
    HitTestResult r;
    r.worldTransform.columns[3] = {p.x * 2 - 1, 1 - p.y * 2, -2, 1};
    return std::vector<HitTestResult>{r};
  };

  SSDPostProcessor post(1917, 90, 0.01);
  Object3DTracker tracker(2436, 1125);
  std::vector<double> prep, net, decode, track, total;
  size_t predictions = 0;
  const int frames = 12;
  for (int i = 0; i < frames + 2; ++i) {
    const auto t0 = Clock::now();
    const auto rgb = modelInputRgb(image, ImageOrientation::kRight, CropAndScale::kCenterCrop, 300);
    const auto t1 = Clock::now();
    const DetectorResult r = model->runPrepared(rgb);
    const auto t2 = Clock::now();
    const auto preds = post.process(r.outputs[2].tensor, r.outputs[1].tensor);
    const auto t3 = Clock::now();
    const auto objects = tracker.convert2DBBoxTo3D(preds, *post.classNames, frame);
    const auto t4 = Clock::now();
    if (i < 2) continue;  // warm-up
    predictions += preds.size();
    prep.push_back(ms(t1 - t0)), net.push_back(ms(t2 - t1)), decode.push_back(ms(t3 - t2));
    track.push_back(ms(t4 - t3)), total.push_back(ms(t4 - t0));
  }
  const double tNet = median(net), tPrep = median(prep), tDecode = median(decode);
  const double tTrack = median(track), tTotal = median(total);
  std::printf("# %.1f predictions per frame after suppression\n",
              static_cast<double>(predictions) / frames);
  std::printf("figure detection_step_ms %.2f ms\n", tTotal);
  std::printf("figure detection_step_model_ms %.2f ms\n", tNet);
  std::printf("figure detection_step_image_prep_ms %.3f ms\n", tPrep);
  std::printf("figure detection_step_postprocess_ms %.3f ms\n", tDecode);
  std::printf("figure detection_step_tracking_ms %.3f ms\n", tTrack);
  // Ours: post-processing and tracking. Image preparation stands in for the platform's vision
  // request (rotation, crop, scaling) and is reported beside it.
  std::printf("figure detection_step_ours_share %.2f %%\n", 100.0 * (tDecode + tTrack) / tTotal);
  std::printf("figure detection_step_ours_with_prep_share %.2f %%\n",
              100.0 * (tDecode + tTrack + tPrep) / tTotal);
  return 0;
}

}  // namespace
}  // namespace omra

int main() { return omra::run(); }
