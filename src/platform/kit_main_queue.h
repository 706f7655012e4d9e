// The kit-owned main thread: an io_context run by one thread until the queue is destroyed.
#pragma once

#include <memory>
#include <thread>

#include "omrakit/platform/dispatch.h"

namespace omra {

// Owns its thread; post() and isCurrent() are thread-safe. The destructor runs what is already
// queued, then joins the thread; it must not run on that thread.
class KitMainQueue : public MainQueue {
 public:
  KitMainQueue();
  ~KitMainQueue() override;
  KitMainQueue(const KitMainQueue&) = delete;
  KitMainQueue& operator=(const KitMainQueue&) = delete;

  void post(Task task) override;
  bool isCurrent() const override;
  // Runs queued work to completion and stops the thread; later posts are dropped. Thread-safe,
  // idempotent; a call from the main thread itself is a contract violation.
  void shutdown();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace omra
