// The default Dispatcher on Linux: serial queues are Asio strands over one small shared thread
// pool, the background queue posts straight to that pool, and the main queue is a kit-owned thread
// that runs its own io_context until a host installs another main queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "omrakit/platform/dispatch.h"

namespace omra {

class KitMainQueue;

// Owns the pool threads and the kit main thread; every method is thread-safe. Destruction drops
// pending delayed tasks, lets queued and running ones finish, then stops the threads; it must not
// run on one of the dispatcher's own threads. Serial queues may outlive it: work posted to them
// afterwards is dropped.
class AsioDispatcher : public Dispatcher {
 public:
  // poolThreads is clamped to 1..8; the kit needs only a few.
  explicit AsioDispatcher(int poolThreads = 3);
  ~AsioDispatcher() override;
  AsioDispatcher(const AsioDispatcher&) = delete;
  AsioDispatcher& operator=(const AsioDispatcher&) = delete;

  std::shared_ptr<SerialQueue> makeSerialQueue(std::string label) override;
  void background(Task task) override;
  MainQueue& mainQueue() override;
  void installMainQueue(std::shared_ptr<MainQueue> queue) override;
  std::unique_ptr<Semaphore> makeSemaphore(int initialCount) override;

  // Delayed tasks waiting for their time (for tests and diagnostics). Thread-safe.
  size_t pendingDelayedTasks() const;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace omra
