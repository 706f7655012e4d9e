#include "src/cloud/camera_path_model_queue.h"

#include "src/cloud/camera_path_model.h"
#include "src/foundation/number_format.h"

namespace omra {

CameraPathModelQueue::CameraPathModelQueue(SessionIdSource sessionId, RecordWriter writer)
    : sessionState_(std::move(sessionId)), writer_(std::move(writer)) {}

std::string CameraPathModelQueue::poseText(const Matrix4x4& transform) {
  std::string text;
  text.reserve(16 * 12);
  for (int row = 0; row < 4; ++row) {
    for (int column = 0; column < 4; ++column) {
      appendFloatShortest(text, transform.at(row, column));
      text += ',';
    }
  }
  return text;
}

void CameraPathModelQueue::add(const Matrix4x4& cameraTransform, int64_t frameId) {
  const int64_t blockStart = (frameId / kBlockSize) * kBlockSize;
  if (queuedCameraPathStart_ < blockStart && !queuedCameraPaths_.empty()) {
    save();
    queuedCameraPaths_.clear();
  }
  queuedCameraPaths_.insert_or_assign(std::to_string(frameId), poseText(cameraTransform));
  queuedCameraPathStart_ = blockStart;
}

void CameraPathModelQueue::save() {
  CameraPathModel model(sessionState_ ? sessionState_().value_or("") : "", queuedCameraPathStart_,
                        queuedCameraPaths_);
  // No identifier: the store refuses the item for its missing key, and that error is printed.
  if (model.sessionId->empty()) model.sessionId.reset();
  writer_.save(model);
}

}  // namespace omra
