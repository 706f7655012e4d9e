#include "sim/sim_detector.h"

#include <string>

#include "sim/frame_image.h"
#include "sim/ssd_encoder.h"

namespace omra::sim {

SimDetectorModel::SimDetectorModel(std::shared_ptr<const Recording> recording)
    : recording_(std::move(recording)) {}

DetectorResult SimDetectorModel::run(const PixelBuffer& image, ImageOrientation, CropAndScale) {
  DetectorResult result;
  std::optional<int64_t> index = readFrameTag(image);
  if (!index) {
    result.error = "image carries no frame tag";
    return result;
  }
  const RecordedFrame* frame = recording_->frame(*index);
  if (!frame) {
    result.error = "no recorded frame " + std::to_string(*index);
    return result;
  }
  SsdTensors t = encodeDetections(frame->detections, recording_->header.sessionSeed * 1000003ULL +
                                                         static_cast<uint64_t>(*index));
  result.outputs.push_back({"FeatureExtractor_aux", Tensor()});
  result.outputs.push_back(
      {"concat_1__0", Tensor::fromFloats({kSsdClasses, kSsdAnchors}, t.classScores)});
  result.outputs.push_back({"concat__0", Tensor::fromFloats({4, kSsdAnchors}, t.boxEncodings)});
  const ActivationData& a = frame->activation;
  result.outputs.push_back({"activation", Tensor::fromFloats(a.shape, a.values)});
  return result;
}

}  // namespace omra::sim
