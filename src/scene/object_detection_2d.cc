#include "src/scene/object_detection_2d.h"

#include <cstdio>

#include "src/foundation/fatal.h"

namespace omra {
namespace {

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

ObjectDetection2D::ObjectDetection2D(double screenHeight_, double screenWidth_,
                                     std::shared_ptr<DetectorModel> model, Dispatcher& dispatcher,
                                     std::shared_ptr<Logger> logger)
    : screenHeight(screenHeight_),
      screenWidth(screenWidth_),
      semaphore_(dispatcher.makeSemaphore(1)),
      lastExecutionNs_(nowNs()),
      ssdPostProcessor_(1917, 90, 0.01),
      visionModel_(std::move(model)),
      dispatcher_(dispatcher),
      logger_(std::move(logger)) {
  if (!visionModel_) fatalError("Can't load VisionML model");
  OMRA_CHECK(ssdPostProcessor_.classNames.has_value(), "SSDPostProcessor has no class names");
  classNames_ = *ssdPostProcessor_.classNames;
}

ObjectDetection2D::~ObjectDetection2D() { close(); }

void ObjectDetection2D::close() {
  if (!closing_.exchange(true)) semaphore_->signal();
}

ImageOrientation ObjectDetection2D::requestOrientation(phoneOrientation orientation) {
  switch (orientation) {
    case phoneOrientation::landscapeLeft:
      return ImageOrientation::kUp;
    case phoneOrientation::landscapeRight:
      return ImageOrientation::kDown;
    case phoneOrientation::portrait:
      break;
  }
  return ImageOrientation::kRight;
}

void ObjectDetection2D::classifyImage(const PixelBuffer& image,
                                      const ClassificationCallback& callback,
                                      phoneOrientation orientation) {
  semaphore_->wait();
  if (closing_) {
    semaphore_->signal();  // pass the wake-up on to any other waiter
    return;
  }
  const DetectorResult result =
      visionModel_->run(image, requestOrientation(orientation), CropAndScale::kCenterCrop);
  if (!result.ok()) {
    if (logger_) logger_->print(result.error);
    semaphore_->signal();
    return;
  }
  lastExecutionNs_ = nowNs();
  std::shared_ptr<const Activation> activation = processDetectionResult(result);
  // Unexpected results call nobody, but the next frame gets its turn: a model that misbehaves
  // once must not stop detection for the rest of the session.
  if (!activation) {
    semaphore_->signal();
    return;
  }
  if (callback) callback(activation->predictions, activation);
  dispatcher_.mainQueue().post([overlays = overlays_, n = numBoxes] { hide(*overlays, n); });
  semaphore_->signal();
}

std::shared_ptr<const Activation> ObjectDetection2D::processDetectionResult(
    const DetectorResult& result) {
  std::string why;
  std::optional<SSDPostProcessor::Outputs> outputs;
  if (result.outputs.size() != 4) {
    why = "the detector gave " + std::to_string(result.outputs.size()) + " outputs, expected 4";
  } else if (const Tensor& activation = result.outputs[3].tensor;
             !activation.fitsStorage() || activation.empty() || activation.shape().size() < 3) {
    why = "the activation is not a three-dimensional feature map inside its storage";
  } else {
    // Outputs of the wrong size or layout are refused, never read out of range.
    outputs = ssdPostProcessor_.canonicalOutputs(result.outputs[2].tensor, result.outputs[1].tensor,
                                                 &why);
  }
  if (!outputs) {
    // Once per detector: a broken model would otherwise log every frame.
    if (logger_ && !reportedBadOutputs_.exchange(true)) {
      logger_->systemLog(LogLevel::kError, "Detector outputs dropped: " + why);
    }
    return nullptr;
  }
  return std::make_shared<const Activation>(
      ssdPostProcessor_.process(outputs->boxes, outputs->scores), result.outputs[3].tensor);
}

void ObjectDetection2D::hide(Overlays& overlays, int numBoxes) {
  std::lock_guard<std::mutex> lock(overlays.mutex);
  if (overlays.boxes.empty()) return;
  for (int i = 0; i < numBoxes; ++i) {
    OMRA_CHECK(static_cast<size_t>(i) < overlays.boxes.size(),
               "hideAllBoxes: fewer overlays than boxes");
    overlays.boxes[static_cast<size_t>(i)].shapeHidden = true;
    overlays.boxes[static_cast<size_t>(i)].textHidden = true;
  }
}

void ObjectDetection2D::hideAllBoxes() { hide(*overlays_, numBoxes); }

std::chrono::steady_clock::time_point ObjectDetection2D::lastExecution() const {
  return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(lastExecutionNs_.load()));
}

void ObjectDetection2D::setBoundingBoxes(std::vector<BoundingBox2D> boxes) {
  std::lock_guard<std::mutex> lock(overlays_->mutex);
  overlays_->boxes = std::move(boxes);
}

std::vector<BoundingBox2D> ObjectDetection2D::boundingBoxes() const {
  std::lock_guard<std::mutex> lock(overlays_->mutex);
  return overlays_->boxes;
}

}  // namespace omra
