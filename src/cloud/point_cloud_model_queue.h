#pragma once

#include <cstdint>

#include "omrakit/ar_types.h"
#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_writer.h"

namespace omra {

// Gathers raw feature points and writes one PointCloudModel per block of 180 frame numbers. Owned
// by the persistence manager; not thread-safe: one thread (the frame processing) drives add() and
// save(). Save completions run on the store's thread and only print.
class PointCloudModelQueue {
 public:
  static constexpr int64_t kBlockSize = 180;

  PointCloudModelQueue(SessionIdSource sessionId, RecordWriter writer);

  // The cloud's identifiers under frameId and each point under its identifier (a feature seen
  // again keeps its latest position). Fewer points than identifiers is fatal.
  void add(const ArPointCloud& pointCloud, int64_t frameId);
  // Writes the gathered block now (also when empty); keeps it queued.
  void save();

  int64_t queuedFrameStart() const { return queuedFrameStart_; }
  const PointCloudModel::FramesToFeatureIds& framesToFeatureIds() const {
    return framesToFeatureIds_;
  }
  const PointCloudModel::IdToFeature& idToFeature() const { return idToFeature_; }

 private:
  SessionIdSource sessionState_;
  RecordWriter writer_;
  int64_t queuedFrameStart_ = 0;
  PointCloudModel::FramesToFeatureIds framesToFeatureIds_;
  PointCloudModel::IdToFeature idToFeature_;
};

}  // namespace omra
