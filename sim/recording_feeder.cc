#include "sim/recording_feeder.h"

#include <chrono>
#include <thread>

namespace omra::sim {

FeedResult feedRecording(const RecordingPlayer& player, const RecordingSink& sink,
                         const FeedOptions& options) {
  using Clock = std::chrono::steady_clock;
  FeedResult result;
  const Recording& rec = player.recording();
  const size_t total = rec.frameCount();
  const Clock::time_point start = Clock::now();
  double firstTimestamp = 0;
  for (const RecordingEvent& e : rec.events) {
    if (options.stop && options.stop()) {
      result.stopped = true;
      break;
    }
    if (const auto* p = std::get_if<PlaneEvent>(&e)) {
      if (sink.plane) sink.plane(p->kind, p->anchor);
      ++result.planeEvents;
      continue;
    }
    const RecordedFrame& f = std::get<RecordedFrame>(e);
    if (result.frames == 0) firstTimestamp = f.timestamp;
    if (options.speed > 0) {
      auto due = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                             (f.timestamp - firstTimestamp) / options.speed));
      std::this_thread::sleep_until(due);
    }
    if (sink.frame) sink.frame(player.arFrame(f, options.renderImages));
    ++result.frames;
    if (options.progress) options.progress(result.frames, total);
  }
  return result;
}

}  // namespace omra::sim
