// Runs the SSD detector on a camera image and hands the decoded predictions and the raw feature map
// to a callback.
//
// Owned by the pipeline. classifyImage is thread-safe but blocks: a semaphore of count 1 lets one
// model run at a time. The callback runs on the caller's thread, inside classifyImage. hideAllBoxes
// runs on the main queue and is thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "omrakit/platform/detector_model.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/logger.h"
#include "src/foundation/orientation.h"
#include "src/scene/activation.h"
#include "src/scene/ssd_post_processor.h"

namespace omra {

// A drawn 2D box: its outline and its label, each hidden or shown. Host views draw them.
struct BoundingBox2D {
  bool shapeHidden = false;
  bool textHidden = false;
};

class ObjectDetection2D {
 public:
  using ClassificationCallback =
      std::function<void(const std::vector<Prediction>&, std::shared_ptr<const Activation>)>;

  // model must not be null (the session only builds the pipeline when a model loaded).
  ObjectDetection2D(double screenHeight, double screenWidth, std::shared_ptr<DetectorModel> model,
                    Dispatcher& dispatcher, std::shared_ptr<Logger> logger);
  ~ObjectDetection2D();

  // Dismisses a call waiting on the semaphore (it returns without running the model), and every
  // later call.
  // Thread-safe.
  void close();

  // Runs the model on image with the request orientation for phone, centre crop. Blocks until the
  // previous run has released the semaphore. Thread-safe.
  void classifyImage(const PixelBuffer& image, const ClassificationCallback& callback,
                     phoneOrientation orientation);
  // Hides every overlay (indices 0..numBoxes-1; a non-empty list shorter than that is fatal).
  // Thread-safe.
  void hideAllBoxes();

  static ImageOrientation requestOrientation(phoneOrientation orientation);

  const std::vector<std::string>& classNames() const { return classNames_; }
  const SSDPostProcessor& ssdPostProcessor() const { return ssdPostProcessor_; }
  // Thread-safe.
  std::chrono::steady_clock::time_point lastExecution() const;
  // Overlays, for a host view to fill and read. Thread-safe.
  void setBoundingBoxes(std::vector<BoundingBox2D> boxes);
  std::vector<BoundingBox2D> boundingBoxes() const;

  const int numBoxes = 100;
  const double screenHeight;
  const double screenWidth;

 private:
  struct Overlays {
    std::mutex mutex;
    std::vector<BoundingBox2D> boxes;  // guarded by mutex
  };
  static void hide(Overlays& overlays, int numBoxes);
  // The predictions and activation of one run, or nothing when the results are unexpected.
  std::shared_ptr<const Activation> processDetectionResult(const DetectorResult& result);

  std::unique_ptr<Semaphore> semaphore_;
  std::atomic<bool> closing_{false};
  std::atomic<bool> reportedBadOutputs_{false};
  std::atomic<int64_t> lastExecutionNs_;
  const SSDPostProcessor ssdPostProcessor_;
  const std::shared_ptr<DetectorModel> visionModel_;
  std::vector<std::string> classNames_;
  Dispatcher& dispatcher_;
  const std::shared_ptr<Logger> logger_;
  const std::shared_ptr<Overlays> overlays_ = std::make_shared<Overlays>();
};

}  // namespace omra
