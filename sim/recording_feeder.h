// Plays a recording into a host's entry points, in order: each plane event, then each frame, paced
// like the original session (or faster). Runs on the calling thread; the sink's callbacks run
// there.
#pragma once

#include <cstddef>
#include <functional>

#include "omrakit/ar_types.h"
#include "sim/recording_player.h"

namespace omra::sim {

struct RecordingSink {
  std::function<void(const ArFrame&)> frame;
  std::function<void(PlaneEventKind, const ArPlaneAnchor&)> plane;
};

struct FeedOptions {
  double speed = 1.0;         // 1: the session's own pace; 2: twice as fast; 0: no waiting
  bool renderImages = false;  // false: images carry only the frame tag (the detector needs no more)
  // Asked before every event; returning true ends the feed early.
  std::function<bool()> stop;
  // Called after each frame with (frames fed, frames in the recording).
  std::function<void(size_t, size_t)> progress;
};

struct FeedResult {
  size_t frames = 0;
  size_t planeEvents = 0;
  bool stopped = false;
};

FeedResult feedRecording(const RecordingPlayer& player, const RecordingSink& sink,
                         const FeedOptions& options = {});

}  // namespace omra::sim
