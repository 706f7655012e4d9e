// One recorded AR session: what a host hands the kit (frames, plane-anchor events, the detector's
// outputs) plus, for simulated sessions, the truth. Plain values; a finished Recording is
// immutable and may be shared across threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "omrakit/ar_types.h"
#include "sim/room.h"
#include "sim/yaw_transform.h"

namespace omra::sim {

inline constexpr const char* kRecordingFormat = "omra-recording";
inline constexpr int kRecordingVersion = 1;

// One box the detector reports, in normalized model (centre-crop) coordinates.
struct Detection {
  int classIndex = 0;  // COCO label index, 1..90
  float score = 0;
  float yMin = 0, xMin = 0, yMax = 0, xMax = 0;
  int objectId = 0;  // truth: the room object it shows, 0 for a false positive
};

struct ActivationData {
  std::vector<int64_t> shape;  // three dimensions
  std::vector<float> values;   // row-major
};

struct RecordedFrame {
  int64_t index = 0;
  double timestamp = 0;
  Matrix4x4 worldFromCamera;       // session frame
  Float3 eulerAngles;              // pitch, yaw, roll (radians)
  std::vector<uint64_t> pointIds;  // raw feature points seen in this frame
  std::vector<Detection> detections;
  ActivationData activation;
};

enum class PlaneEventKind { kAdded, kUpdated, kRemoved };

struct PlaneEvent {
  PlaneEventKind kind = PlaneEventKind::kAdded;
  ArPlaneAnchor anchor;
};

using RecordingEvent = std::variant<RecordedFrame, PlaneEvent>;

struct RecordingHeader {
  std::string generator = "omra-sim";
  std::string role;  // "mapping", "localization" or free text
  uint64_t sceneSeed = 0;
  uint64_t sessionSeed = 0;
  double fps = 60;
  int imageWidth = 64;
  int imageHeight = 64;
  double horizontalFovDegrees = 60;
};

struct RecordingTruth {
  YawTransform sessionFromRoom;  // carries room coordinates into this session's world frame
  Room room;                     // objects and dimensions (no surfaces or points)
  // When tracking drifts: session_from_room as the tracking had it at each frame (index order).
  // Empty when it does not drift.
  std::vector<YawTransform> trackedFromRoom;

  // Where the session's tracking put the room at `frame`: what a host shows is right when it
  // matches this, not the drift-free frame.
  const YawTransform& sessionFromRoomAt(int64_t frame) const;
};

struct Recording {
  RecordingHeader header;
  std::optional<RecordingTruth> truth;
  // Feature points by identifier, session frame.
  std::unordered_map<uint64_t, Float3> points;
  std::vector<RecordingEvent> events;

  size_t frameCount() const;
  // The frame with this index, or nullptr. Call indexFrames() after changing events.
  const RecordedFrame* frame(int64_t index) const;
  void indexFrames();

 private:
  std::unordered_map<int64_t, size_t> frameEvent_;
};

}  // namespace omra::sim
