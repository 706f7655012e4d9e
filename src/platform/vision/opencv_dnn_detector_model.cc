#include "src/platform/vision/opencv_dnn_detector_model.h"

#include <cstring>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <utility>

#include "src/platform/vision/image_ops.h"

namespace omra {

struct OpenCvDnnDetectorModel::Impl {
  cv::dnn::Net net;
  std::vector<std::string> outputNames;  // aux (may be missing), scores, boxes, activation
  bool hasAuxiliary = false;
};

namespace {

const std::string kRefused = "Can't load VisionML model: ";

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

Tensor toTensor(const cv::Mat& m, bool dropBatch) {
  std::vector<int64_t> shape;
  for (int d = 0; d < m.dims; ++d) shape.push_back(m.size[d]);
  if (dropBatch && shape.size() == 4 && shape[0] == 1) shape.erase(shape.begin());
  cv::Mat f;
  m.convertTo(f, CV_32F);
  if (!f.isContinuous()) f = f.clone();
  Tensor t(shape, TensorDataType::kFloat32);
  if (t.count() == static_cast<int64_t>(f.total())) {
    std::memcpy(t.data(), f.ptr<float>(), f.total() * sizeof(float));
  }
  return t;
}

}  // namespace

OpenCvDnnDetectorModel::OpenCvDnnDetectorModel(std::unique_ptr<Impl> impl, OpenCvDnnOptions options)
    : impl_(std::move(impl)), options_(std::move(options)) {}

OpenCvDnnDetectorModel::~OpenCvDnnDetectorModel() = default;

std::shared_ptr<OpenCvDnnDetectorModel> OpenCvDnnDetectorModel::load(
    const std::string& path, const OpenCvDnnOptions& options, std::string* error) {
  auto fail = [&](const std::string& reason) {
    if (error) *error = kRefused + reason;
    return nullptr;
  };
  if (path.empty()) return fail("no model path configured");
  if (!std::ifstream(path).good()) return fail("cannot read " + path);
  if (options.inputSize <= 0) return fail("input size must be positive");
  auto impl = std::make_unique<Impl>();
  try {
    impl->net = endsWith(path, ".pb") ? cv::dnn::readNetFromTensorflow(path)
                                      : cv::dnn::readNetFromONNX(path);
  } catch (const cv::Exception& e) {
    return fail(e.what());
  }
  if (impl->net.empty()) return fail("the file holds no network");
  const std::vector<std::string> layers = impl->net.getLayerNames();
  auto has = [&](const std::string& name) {
    for (const auto& l : layers)
      if (l == name) return true;
    for (const auto& l : impl->net.getUnconnectedOutLayersNames())
      if (l == name) return true;
    return false;
  };
  for (const std::string* required :
       {&options.scoresName, &options.boxesName, &options.activationName}) {
    if (!has(*required)) return fail("no output named \"" + *required + "\"");
  }
  impl->hasAuxiliary = !options.auxiliaryName.empty() && has(options.auxiliaryName);
  if (impl->hasAuxiliary) impl->outputNames.push_back(options.auxiliaryName);
  impl->outputNames.insert(impl->outputNames.end(),
                           {options.scoresName, options.boxesName, options.activationName});

  std::shared_ptr<OpenCvDnnDetectorModel> model(
      new OpenCvDnnDetectorModel(std::move(impl), options));
  // One trial run checks that the outputs have the sizes the decoder reads.
  const std::vector<uint8_t> grey(static_cast<size_t>(options.inputSize) * options.inputSize * 3,
                                  128);
  const DetectorResult trial = model->runPrepared(grey);
  if (!trial.ok()) return fail(trial.error);
  const int64_t n = options.numAnchors;
  if (trial.outputs[1].tensor.count() != options.numScoreRows * n) {
    return fail("class scores have " + std::to_string(trial.outputs[1].tensor.count()) +
                " values, expected " + std::to_string(options.numScoreRows * n));
  }
  if (trial.outputs[2].tensor.count() != 4 * n) {
    return fail("box encodings have " + std::to_string(trial.outputs[2].tensor.count()) +
                " values, expected " + std::to_string(4 * n));
  }
  if (trial.outputs[3].tensor.shape().size() < 3) {
    return fail("the activation is not a three-dimensional feature map");
  }
  return model;
}

DetectorResult OpenCvDnnDetectorModel::run(const PixelBuffer& image, ImageOrientation orientation,
                                           CropAndScale crop) {
  const std::vector<uint8_t> rgb = modelInputRgb(image, orientation, crop, options_.inputSize);
  if (rgb.empty()) return {{}, "the image is empty or malformed"};
  return runPrepared(rgb);
}

DetectorResult OpenCvDnnDetectorModel::runPrepared(const std::vector<uint8_t>& rgb) {
  const int s = options_.inputSize;
  if (rgb.size() != static_cast<size_t>(s) * s * 3)
    return {{}, "prepared input has the wrong size"};
  const cv::Mat img(s, s, CV_8UC3, const_cast<uint8_t*>(rgb.data()));
  const cv::Mat blob = cv::dnn::blobFromImage(img, options_.pixelScale, cv::Size(s, s),
                                              cv::Scalar::all(options_.pixelMean), false, false);
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<cv::Mat> outs;
  try {
    impl_->net.setInput(blob, options_.inputName);
    impl_->net.forward(outs, impl_->outputNames);
  } catch (const cv::Exception& e) {
    return {{}, e.what()};
  }
  if (outs.size() != impl_->outputNames.size()) return {{}, "the network returned too few outputs"};
  DetectorResult result;
  size_t i = 0;
  if (impl_->hasAuxiliary) {
    result.outputs.push_back({impl_->outputNames[0], toTensor(outs[0], true)});
    i = 1;
  } else {
    result.outputs.push_back({options_.auxiliaryName, Tensor()});
  }
  for (; i < outs.size(); ++i) {
    result.outputs.push_back({impl_->outputNames[i], toTensor(outs[i], true)});
  }
  return result;
}

}  // namespace omra
