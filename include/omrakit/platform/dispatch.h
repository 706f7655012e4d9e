// Dispatch: serial queues, the background queue, the main queue and semaphores.
//
// Every method here is thread-safe. Queues run submitted work one item at a time, in submission
// order. A queue outlives the work posted to it: dropping the last reference waits for nothing, but
// work already posted still runs as long as the Dispatcher lives. A queue may be dropped after its
// Dispatcher (a task left on a host's loop may hold the last reference).
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace omra {

using Task = std::function<void()>;

// The host's UI loop or a kit-owned thread. A host may install its own (see Dispatcher).
class MainQueue {
 public:
  virtual ~MainQueue() = default;
  // Runs task later on the main thread. Thread-safe.
  virtual void post(Task task) = 0;
  // True when the caller runs on the main thread. Thread-safe.
  virtual bool isCurrent() const = 0;
};

class SerialQueue {
 public:
  virtual ~SerialQueue() = default;
  virtual const std::string& label() const = 0;
  // Queues task and returns at once.
  virtual void async(Task task) = 0;
  // Runs task on the queue and waits for it. Must not be called from the queue itself.
  virtual void sync(Task task) = 0;
  // Queues task after delay.
  virtual void asyncAfter(std::chrono::nanoseconds delay, Task task) = 0;
};

// A counting semaphore with the platform's wait/signal semantics.
class Semaphore {
 public:
  virtual ~Semaphore() = default;
  virtual void wait() = 0;
  // Waits at most timeout; false on time-out.
  virtual bool waitFor(std::chrono::nanoseconds timeout) = 0;
  virtual void signal() = 0;
};

// Owns the worker threads behind all queues. Caller owns the Dispatcher and must keep it alive
// longer than every object that posts to its queues.
class Dispatcher {
 public:
  virtual ~Dispatcher() = default;
  virtual std::shared_ptr<SerialQueue> makeSerialQueue(std::string label) = 0;
  // The background global queue: concurrent, for fire-and-forget work.
  virtual void background(Task task) = 0;
  virtual MainQueue& mainQueue() = 0;
  // Replaces the main queue (for example with the host's UI loop). Call before creating sessions.
  virtual void installMainQueue(std::shared_ptr<MainQueue> queue) = 0;
  virtual std::unique_ptr<Semaphore> makeSemaphore(int initialCount) = 0;
};

}  // namespace omra
