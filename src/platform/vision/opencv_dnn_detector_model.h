// The detector model on OpenCV DNN: loads an ONNX or TensorFlow .pb SSD model file and runs it on
// camera images. Owned by whoever loads it (usually the Env); run() is thread-safe (one run at a
// time, serialised by a mutex).
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "omrakit/platform/detector_model.h"

namespace omra {

struct OpenCvDnnOptions {
  std::string inputName = "Preprocessor__sub__0";
  int inputSize = 300;
  // Model input value = (pixel - pixelMean) * pixelScale: x / 127.5 - 1 for SSD-MobileNet.
  double pixelMean = 127.5;
  double pixelScale = 1.0 / 127.5;
  std::string boxesName = "concat__0";
  std::string scoresName = "concat_1__0";
  std::string activationName =
      "FeatureExtractor__MobilenetV1__Conv2d_13_pointwise_2_Conv2d_2_3x3_s2_512__Relu6__0";
  // Optional: when the model has no such output, output 0 is an empty tensor.
  std::string auxiliaryName =
      "FeatureExtractor__MobilenetV1__Conv2d_13_pointwise_1_Conv2d_4_1x1_128__Relu6__0";
  int numAnchors = 1917;
  int numScoreRows = 91;  // classes including the background
};

class OpenCvDnnDetectorModel : public DetectorModel {
 public:
  // Loads the model at path (".pb": TensorFlow, anything else: ONNX) and checks it with one run on
  // a grey image. On failure returns null and sets *error to "Can't load VisionML model: <reason>".
  static std::shared_ptr<OpenCvDnnDetectorModel> load(const std::string& path,
                                                      const OpenCvDnnOptions& options,
                                                      std::string* error);
  ~OpenCvDnnDetectorModel() override;

  // Thread-safe.
  DetectorResult run(const PixelBuffer& image, ImageOrientation orientation,
                     CropAndScale crop) override;
  // Runs only the network on an already prepared RGB input (size x size x 3). Thread-safe.
  DetectorResult runPrepared(const std::vector<uint8_t>& rgb);

  const OpenCvDnnOptions& options() const { return options_; }

 private:
  struct Impl;
  OpenCvDnnDetectorModel(std::unique_ptr<Impl> impl, OpenCvDnnOptions options);

  std::mutex mutex_;
  std::unique_ptr<Impl> impl_;  // guarded by mutex_
  const OpenCvDnnOptions options_;
};

}  // namespace omra
