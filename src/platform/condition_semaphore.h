// A counting semaphore on a mutex and a condition variable.
#pragma once

#include <condition_variable>
#include <mutex>

#include "omrakit/platform/dispatch.h"

namespace omra {

// Shared by the threads that wait and signal; every method is thread-safe.
class ConditionSemaphore : public Semaphore {
 public:
  explicit ConditionSemaphore(int initialCount);
  void wait() override;
  bool waitFor(std::chrono::nanoseconds timeout) override;
  void signal() override;

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  long count_;
};

}  // namespace omra
