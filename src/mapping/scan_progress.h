// Counts scan-progress events, reports them to the host and fires the relocalization triggers.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace omra {

class SessionState;

// Owned by Persistence (one per session). increment() may run on the plane and the object paths
// at the same time: it is thread-safe, and each event gets its own count. Registration is
// thread-safe too (Persistence registers its triggers at construction).
class ScanProgress {
 public:
  using ProgressCallback = std::function<void(int64_t)>;
  using Trigger = std::function<void()>;

  ScanProgress(std::shared_ptr<SessionState> sessionState, ProgressCallback progressCallback);

  // One scan-progress event: the progress callback gets the new count on the calling thread; in
  // localization mode every trigger whose threshold is reached fires (see scan_progress.cc).
  void increment();

  // Appends a trigger and its threshold (the two lists stay parallel).
  void registerTrigger(Trigger trigger, int64_t threshold);

  int64_t scanProgressCount() const { return scanProgressCount_.load(); }

 private:
  std::shared_ptr<SessionState> sessionState_;
  std::atomic<int64_t> scanProgressCount_{0};
  ProgressCallback progressCallback_;
  mutable std::mutex triggersMutex_;
  std::vector<Trigger> triggerTransformCompute_;
  std::vector<int64_t> triggerTransformThreshold_;
};

}  // namespace omra
