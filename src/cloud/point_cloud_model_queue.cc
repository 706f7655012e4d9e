#include "src/cloud/point_cloud_model_queue.h"

#include "src/foundation/fatal.h"

namespace omra {

PointCloudModelQueue::PointCloudModelQueue(SessionIdSource sessionId, RecordWriter writer)
    : sessionState_(std::move(sessionId)), writer_(std::move(writer)) {}

void PointCloudModelQueue::add(const ArPointCloud& pointCloud, int64_t frameId) {
  const int64_t blockStart = (frameId / kBlockSize) * kBlockSize;
  if (queuedFrameStart_ < blockStart && !framesToFeatureIds_.empty()) {
    save();
    framesToFeatureIds_.clear();
    idToFeature_.clear();
  }
  const auto& ids = pointCloud.identifiers;
  OMRA_CHECK(pointCloud.points.size() >= ids.size(),
             "a point cloud has fewer points than identifiers");
  framesToFeatureIds_.insert_or_assign(frameId, ids);
  for (size_t i = 0; i < ids.size(); ++i)
    idToFeature_.insert_or_assign(ids[i], pointCloud.points[i]);
  queuedFrameStart_ = blockStart;
}

void PointCloudModelQueue::save() {
  PointCloudModel model(sessionState_ ? sessionState_().value_or("") : "", queuedFrameStart_,
                        framesToFeatureIds_, idToFeature_);
  // No identifier: the store refuses the item for its missing key, and that error is printed.
  if (model.sessionId->empty()) model.sessionId.reset();
  writer_.save(model);
}

}  // namespace omra
