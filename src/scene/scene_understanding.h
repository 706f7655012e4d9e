// The object-detection pipeline: gates frames by camera motion and an in-progress flag, runs the 2D
// detector off the caller's thread, lifts its boxes into tracked 3D objects and reports them with
// the detector's activation.
//
// Owned by the session. processImage is called from one frame thread at a time (the motion analyser
// is not locked). The callback runs on the pipeline's update queue; the owner hops to its own
// queue. setScene is thread-safe. Destroy it from a thread other than its own queues: the
// destructor waits for queued work and no callback runs after it returns.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "omrakit/ar_types.h"
#include "omrakit/detected_object.h"
#include "omrakit/platform/detector_model.h"
#include "omrakit/platform/device_info.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/logger.h"
#include "src/scene/activation.h"
#include "src/scene/motion_analyzer.h"
#include "src/scene/object_3d_tracker.h"
#include "src/scene/object_detection_2d.h"
#include "src/scene/scene_graph.h"

namespace omra {

class SceneUnderstanding {
 public:
  using Callback = std::function<void(const std::vector<DetectedObject>& objects,
                                      std::shared_ptr<const Activation> activation)>;

  // model and dispatcher must not be null; the dispatcher must outlive the pipeline. device gives
  // the host's supported orientations (null: it declares none).
  SceneUnderstanding(double screenHeight, double screenWidth, Callback callback,
                     std::shared_ptr<DetectorModel> model, std::shared_ptr<Dispatcher> dispatcher,
                     std::shared_ptr<Logger> logger = nullptr,
                     std::shared_ptr<DeviceInfo> device = nullptr);
  ~SceneUnderstanding();
  SceneUnderstanding(const SceneUnderstanding&) = delete;
  SceneUnderstanding& operator=(const SceneUnderstanding&) = delete;

  // Offers a frame. Still frames and frames arriving while a hand-over is in progress are dropped;
  // an accepted frame is queued for detection and adds 1 to fpsDataProcess2Counter (overflow is
  // fatal). Not thread-safe: one frame thread.
  void processImage(const ArFrame& frame, int64_t& fpsDataProcess2Counter);

  // The debug-drawing scene, for the pipeline and its tracker. Thread-safe.
  void setScene(std::shared_ptr<SceneGraph> scene);
  std::shared_ptr<SceneGraph> scene() const;

  // True between accepting a frame and the detector's call returning. Thread-safe.
  bool updateInProgress() const;
  const MotionAnalyzer& motionAnalyzer() const { return motionAnalyzer_; }
  // Used on the update queue only; for inspection when the pipeline is idle.
  Object3DTracker& objectTracker3D();
  ObjectDetection2D& objectDetection2D();

  const double screenHeight;
  const double screenWidth;

 private:
  struct Core;
  MotionAnalyzer motionAnalyzer_;  // frame thread only
  std::shared_ptr<Core> core_;
};

}  // namespace omra
