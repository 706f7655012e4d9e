#include "src/mapping/scan_progress.h"

#include <chrono>
#include <limits>
#include <utility>

#include "src/cloud/cloud_api.h"
#include "src/foundation/fatal.h"
#include "src/session/session_state.h"

namespace omra {

ScanProgress::ScanProgress(std::shared_ptr<SessionState> sessionState,
                           ProgressCallback progressCallback)
    : sessionState_(std::move(sessionState)), progressCallback_(std::move(progressCallback)) {}

void ScanProgress::registerTrigger(Trigger trigger, int64_t threshold) {
  std::lock_guard lock(triggersMutex_);
  triggerTransformCompute_.push_back(std::move(trigger));
  triggerTransformThreshold_.push_back(threshold);
}

void ScanProgress::increment() {
  int64_t previous = scanProgressCount_.load();
  do {
    OMRA_CHECK(previous < std::numeric_limits<int64_t>::max(), "scan progress count overflow");
  } while (!scanProgressCount_.compare_exchange_weak(previous, previous + 1));
  const int64_t count = previous + 1;

  if (progressCallback_) progressCallback_(count);
  if (sessionState_->sessionMode() == SessionMode::mapping) return;

  std::vector<Trigger> triggers;
  std::vector<int64_t> thresholds;
  {
    std::lock_guard lock(triggersMutex_);
    triggers = triggerTransformCompute_;
    thresholds = triggerTransformThreshold_;
  }
  for (size_t i = 0; i < triggers.size(); ++i) {
    if (count == thresholds[i]) {
      std::optional<std::chrono::system_clock::time_point> ready = sessionState_->readyTime();
      // Not ready yet: this event fires nothing more; the next one fires normally.
      if (!ready) return;
      const double seconds =
          std::chrono::duration<double>(std::chrono::system_clock::now() - *ready).count();
      sessionState_->cloudApi()->postMetric("OmraKit.TriggerTransformComputeTime", seconds, true,
                                            true);
    }
    if (count >= thresholds[i]) triggers[i]();
  }
}

}  // namespace omra
