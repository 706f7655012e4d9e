// A main queue for tests: posted tasks wait until the test pumps them on its own thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "omrakit/platform/dispatch.h"

namespace omra {

// The "main thread" is the thread that created the queue; post() is thread-safe, the pumping
// methods are meant for the creating thread (tasks run on whichever thread pumps).
class ManualMainQueue : public MainQueue {
 public:
  ManualMainQueue();

  void post(Task task) override;
  bool isCurrent() const override;

  // Runs the tasks queued at the time of the call (not those they post); returns how many ran.
  size_t runPending();
  // Runs tasks as they arrive until pred() is true or timeout passes; returns pred()'s last value.
  bool runUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout);
  // Tasks queued and not yet run. Thread-safe.
  size_t size() const;

 private:
  std::thread::id owner_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Task> tasks_;
};

}  // namespace omra
