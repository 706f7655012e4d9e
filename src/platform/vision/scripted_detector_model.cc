#include "src/platform/vision/scripted_detector_model.h"

#include <utility>

namespace omra {

ScriptedDetectorModel::ScriptedDetectorModel(DetectorScript script) : script_(std::move(script)) {}

std::shared_ptr<ScriptedDetectorModel> ScriptedDetectorModel::returning(DetectorResult result) {
  return std::make_shared<ScriptedDetectorModel>(
      [result](const PixelBuffer&, ImageOrientation, CropAndScale) { return result; });
}

DetectorResult ScriptedDetectorModel::outputs(Tensor scores, Tensor boxes, Tensor activation,
                                              Tensor aux) {
  DetectorResult r;
  r.outputs = {
      {"FeatureExtractor__MobilenetV1__Conv2d_13_pointwise_1_Conv2d_4_1x1_128__Relu6__0",
       std::move(aux)},
      {"concat_1__0", std::move(scores)},
      {"concat__0", std::move(boxes)},
      {"FeatureExtractor__MobilenetV1__Conv2d_13_pointwise_2_Conv2d_2_3x3_s2_512__Relu6__0",
       std::move(activation)}};
  return r;
}

DetectorResult ScriptedDetectorModel::run(const PixelBuffer& image, ImageOrientation orientation,
                                          CropAndScale crop) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    orientations_.push_back(orientation);
    crops_.push_back(crop);
  }
  // The script runs outside mutex_, so that the counters stay readable while it blocks.
  std::lock_guard<std::mutex> lock(scriptMutex_);
  if (!script_) return {{}, "no script"};
  return script_(image, orientation, crop);
}

int ScriptedDetectorModel::calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(orientations_.size());
}

std::vector<ImageOrientation> ScriptedDetectorModel::orientations() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return orientations_;
}

std::vector<CropAndScale> ScriptedDetectorModel::crops() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return crops_;
}

}  // namespace omra
