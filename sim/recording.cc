#include "sim/recording.h"

#include <algorithm>

namespace omra::sim {

const YawTransform& RecordingTruth::sessionFromRoomAt(int64_t frame) const {
  if (trackedFromRoom.empty()) return sessionFromRoom;
  const auto last = static_cast<int64_t>(trackedFromRoom.size()) - 1;
  return trackedFromRoom[static_cast<size_t>(std::clamp<int64_t>(frame, 0, last))];
}

size_t Recording::frameCount() const {
  size_t n = 0;
  for (const RecordingEvent& e : events) n += std::holds_alternative<RecordedFrame>(e) ? 1 : 0;
  return n;
}

const RecordedFrame* Recording::frame(int64_t index) const {
  auto it = frameEvent_.find(index);
  if (it == frameEvent_.end()) return nullptr;
  return &std::get<RecordedFrame>(events[it->second]);
}

void Recording::indexFrames() {
  frameEvent_.clear();
  for (size_t i = 0; i < events.size(); ++i) {
    if (const auto* f = std::get_if<RecordedFrame>(&events[i])) frameEvent_[f->index] = i;
  }
}

}  // namespace omra::sim
