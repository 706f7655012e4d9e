// CallbackGate: lets a host's callbacks run only while the object that registered them is alive.
//
// Shared (by shared_ptr) between a session and every closure that may call the host later; the
// closures run the host's code through run(), the session calls close() when it goes away. After
// close() returns no callback runs and none is still running, except one on the closing thread
// itself (a callback that closes its own gate). Thread-safe.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace omra {

class CallbackGate {
 public:
  CallbackGate() = default;
  CallbackGate(const CallbackGate&) = delete;
  CallbackGate& operator=(const CallbackGate&) = delete;

  // Runs fn unless the gate is closed; returns whether it ran. Re-entrant.
  bool run(const std::function<void()>& fn);

  // Closes the gate and waits for callbacks under way on other threads. Idempotent.
  void close();

  bool isOpen() const;

  // Wraps a callback so that it runs through gate; an empty callback stays empty.
  template <typename... Args>
  static std::function<void(Args...)> wrap(std::shared_ptr<CallbackGate> gate,
                                           std::function<void(Args...)> fn) {
    if (!fn) return {};
    return [gate = std::move(gate), fn = std::move(fn)](Args... args) {
      gate->run([&] { fn(std::forward<Args>(args)...); });
    };
  }

 private:
  // How many callbacks of this gate the calling thread is inside.
  int depthOnThisThread() const;

  mutable std::mutex mutex_;
  std::condition_variable idle_;
  bool open_ = true;  // guarded by mutex_
  int running_ = 0;   // guarded by mutex_
};

}  // namespace omra
