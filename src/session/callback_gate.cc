#include "src/session/callback_gate.h"

#include <vector>

namespace omra {
namespace {

// The gates whose callbacks the current thread is inside, innermost last.
thread_local std::vector<const CallbackGate*> tEntered;

}  // namespace

int CallbackGate::depthOnThisThread() const {
  int depth = 0;
  for (const CallbackGate* g : tEntered) depth += g == this ? 1 : 0;
  return depth;
}

bool CallbackGate::run(const std::function<void()>& fn) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open_) return false;
    ++running_;
  }
  tEntered.push_back(this);
  struct Leave {
    CallbackGate* gate;
    ~Leave() {
      tEntered.pop_back();
      std::lock_guard<std::mutex> lock(gate->mutex_);
      if (--gate->running_ == 0) gate->idle_.notify_all();
    }
  } leave{this};
  fn();
  return true;
}

void CallbackGate::close() {
  // A callback closing its own gate cannot wait for itself.
  const int mine = depthOnThisThread();
  std::unique_lock<std::mutex> lock(mutex_);
  open_ = false;
  idle_.wait(lock, [&] { return running_ <= mine; });
}

bool CallbackGate::isOpen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return open_;
}

}  // namespace omra
