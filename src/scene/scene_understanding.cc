#include "src/scene/scene_understanding.h"

#include <limits>

#include "src/foundation/fatal.h"
#include "src/platform/paced_serial_queue.h"

namespace omra {

// What queued work shares with the pipeline; kept alive by the work itself.
struct SceneUnderstanding::Core {
  Core(double h, double w, Callback cb, std::shared_ptr<DetectorModel> model,
       std::shared_ptr<Dispatcher> d, std::shared_ptr<Logger> logger,
       std::shared_ptr<DeviceInfo> device)
      : dispatcher(std::move(d)),
        updateInProgressCheckSyncQueue(
            dispatcher->makeSerialQueue("com.omra.objectdetector.updatecheck")),
        // Frames arrive at a steady pace: the hand-over must not cost the frame thread a wake.
        updateQueue(std::make_shared<PacedSerialQueue>(
            dispatcher->makeSerialQueue("com.omra.objectdetector.updatequeue"),
            PacedSerialQueue::Options{})),
        objectDetection2D(h, w, std::move(model), *dispatcher, std::move(logger)),
        objectTracker3D(h, w, std::move(device)),
        callback(std::move(cb)) {}

  void detect(const ArFrame& frame);

  const std::shared_ptr<Dispatcher> dispatcher;
  const std::shared_ptr<SerialQueue> updateInProgressCheckSyncQueue;
  const std::shared_ptr<SerialQueue> updateQueue;
  // The check queue is kept for its label; the check-and-set itself is one atomic exchange, which
  // is what the queue guaranteed and costs the frame thread no round trip to another thread.
  std::atomic<bool> updateInProgress{false};
  std::atomic<bool> stopped{false};
  ObjectDetection2D objectDetection2D;
  Object3DTracker objectTracker3D;  // update queue only
  const Callback callback;
};

void SceneUnderstanding::Core::detect(const ArFrame& frame) {
  if (stopped) return;
  const phoneOrientation orientation = orientationFromRoll(frame.camera.eulerAngles.z);
  objectDetection2D.classifyImage(
      frame.capturedImage,
      [this, &frame](const std::vector<Prediction>& predictions,
                     std::shared_ptr<const Activation> activation) {
        if (stopped) return;
        const std::vector<DetectedObject> objects =
            objectTracker3D.convert2DBBoxTo3D(predictions, objectDetection2D.classNames(), frame);
        if (callback) callback(objects, std::move(activation));
      },
      orientation);
  // The flag covers only the hand-over; the detector's semaphore serialises the model runs.
  updateInProgress.store(false, std::memory_order_release);
}

SceneUnderstanding::SceneUnderstanding(double screenHeight_, double screenWidth_, Callback callback,
                                       std::shared_ptr<DetectorModel> model,
                                       std::shared_ptr<Dispatcher> dispatcher,
                                       std::shared_ptr<Logger> logger,
                                       std::shared_ptr<DeviceInfo> device)
    : screenHeight(screenHeight_), screenWidth(screenWidth_) {
  OMRA_CHECK(dispatcher != nullptr, "SceneUnderstanding needs a dispatcher");
  core_ = std::make_shared<Core>(screenHeight, screenWidth, std::move(callback), std::move(model),
                                 std::move(dispatcher), std::move(logger), std::move(device));
}

SceneUnderstanding::~SceneUnderstanding() {
  core_->stopped = true;
  core_->objectDetection2D.close();
  // Drain both queues so that nothing of ours runs after this returns.
  core_->updateQueue->sync([] {});
  core_->updateInProgressCheckSyncQueue->sync([] {});
}

void SceneUnderstanding::processImage(const ArFrame& frame, int64_t& counter) {
  if (!motionAnalyzer_.isCameraMoving(frame)) return;
  // A busy frame is dropped, never queued.
  if (core_->updateInProgress.exchange(true, std::memory_order_acq_rel)) return;
  core_->updateQueue->async([core = core_, frame] { core->detect(frame); });
  OMRA_CHECK(counter < std::numeric_limits<int64_t>::max(), "Frame counter overflow");
  ++counter;
}

void SceneUnderstanding::setScene(std::shared_ptr<SceneGraph> scene) {
  core_->objectTracker3D.setScene(std::move(scene));
}

std::shared_ptr<SceneGraph> SceneUnderstanding::scene() const {
  return core_->objectTracker3D.scene();
}

bool SceneUnderstanding::updateInProgress() const { return core_->updateInProgress; }

Object3DTracker& SceneUnderstanding::objectTracker3D() { return core_->objectTracker3D; }

ObjectDetection2D& SceneUnderstanding::objectDetection2D() { return core_->objectDetection2D; }

}  // namespace omra
