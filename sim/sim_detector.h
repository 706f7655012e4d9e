// The detector model of simulated sessions: it reads which frame an image shows from the image's
// tag and answers with that frame's recorded detections as raw SSD tensors and its view
// descriptor as the activation. Immutable after construction; run() is thread-safe.
#pragma once

#include <memory>

#include "omrakit/platform/detector_model.h"
#include "sim/recording.h"

namespace omra::sim {

class SimDetectorModel : public DetectorModel {
 public:
  explicit SimDetectorModel(std::shared_ptr<const Recording> recording);
  // Untagged images and frames the recording lacks give an error result. The recorded boxes
  // are meant for upright images (the simulator's roll stays small, so the kit hands them "up").
  DetectorResult run(const PixelBuffer& image, ImageOrientation orientation,
                     CropAndScale crop) override;

 private:
  std::shared_ptr<const Recording> recording_;
};

}  // namespace omra::sim
