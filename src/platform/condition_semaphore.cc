#include "src/platform/condition_semaphore.h"

#include "src/foundation/fatal.h"

namespace omra {

ConditionSemaphore::ConditionSemaphore(int initialCount) : count_(initialCount) {
  if (initialCount < 0) fatalError("a semaphore's initial count must not be negative");
}

void ConditionSemaphore::wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  cv_.wait(lock, [this] { return count_ > 0; });
  --count_;
}

bool ConditionSemaphore::waitFor(std::chrono::nanoseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!cv_.wait_for(lock, timeout, [this] { return count_ > 0; })) return false;
  --count_;
  return true;
}

void ConditionSemaphore::signal() {
  // Notified under the lock: a waiter may destroy the semaphore as soon as its wait returns.
  std::lock_guard<std::mutex> lock(mutex_);
  ++count_;
  cv_.notify_one();
}

}  // namespace omra
