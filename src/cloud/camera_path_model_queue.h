#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "omrakit/ar_types.h"
#include "omrakit/geometry.h"
#include "src/cloud/record_writer.h"

namespace omra {

// What the session state reports as the current session identifier when a record is written.
using SessionIdSource = std::function<std::optional<std::string>()>;

// Gathers camera poses and writes one CameraPathModel per block of 20 frame numbers. Owned by the
// persistence manager; not thread-safe: one thread (the frame processing) drives add() and save().
// Save completions run on the store's thread and only print.
class CameraPathModelQueue {
 public:
  static constexpr int64_t kBlockSize = 20;

  CameraPathModelQueue(SessionIdSource sessionId, RecordWriter writer);

  // The frame's camera transform under frameId; writes the gathered block first when frameId
  // belongs to a later block.
  void add(const ArFrame& frame, int64_t frameId) { add(frame.camera.transform, frameId); }
  void add(const Matrix4x4& cameraTransform, int64_t frameId);
  // Writes the gathered block now (also when empty); keeps it queued.
  void save();

  // Row by row, each number in its shortest float text followed by "," (trailing comma kept).
  static std::string poseText(const Matrix4x4& transform);

  const std::map<std::string, std::string>& queuedCameraPaths() const { return queuedCameraPaths_; }
  int64_t queuedCameraPathStart() const { return queuedCameraPathStart_; }

 private:
  SessionIdSource sessionState_;
  RecordWriter writer_;
  std::map<std::string, std::string> queuedCameraPaths_;
  int64_t queuedCameraPathStart_ = 0;
};

}  // namespace omra
