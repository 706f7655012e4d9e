#include "src/platform/paced_serial_queue.h"

#include <deque>
#include <mutex>

namespace omra {

// Shared with the polls in flight, which may outlive the queue object.
struct PacedSerialQueue::State : std::enable_shared_from_this<State> {
  State(std::shared_ptr<SerialQueue> q, Options o) : inner(std::move(q)), options(o) {}

  // Runs what was submitted so far; inner queue only. True when there was anything.
  bool runPending() {
    std::deque<Task> batch;
    {
      std::lock_guard<std::mutex> lock(mutex);
      batch.swap(pending);
    }
    for (Task& task : batch) task();
    return !batch.empty();
  }

  // One look at the list; re-arms itself while work keeps coming. Inner queue only.
  void poll() {
    const auto now = std::chrono::steady_clock::now();
    if (runPending()) lastWork = now;
    {
      std::lock_guard<std::mutex> lock(mutex);
      // Decided under the lock that async() takes, so a task is never left without a poll.
      if (!pending.empty()) {
        lastWork = now;
      } else if (closed || now - lastWork >= options.idle) {
        warm = false;
        return;
      }
    }
    inner->asyncAfter(options.poll, [self = shared_from_this()] { self->poll(); });
  }

  const std::shared_ptr<SerialQueue> inner;
  const Options options;
  std::chrono::steady_clock::time_point lastWork;  // inner queue only
  std::mutex mutex;                                // guards the three below
  std::deque<Task> pending;
  bool warm = false;  // a poll is scheduled or running
  bool closed = false;
};

PacedSerialQueue::PacedSerialQueue(std::shared_ptr<SerialQueue> inner, Options options)
    : state_(std::make_shared<State>(std::move(inner), options)) {}

PacedSerialQueue::~PacedSerialQueue() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->closed = true;  // a warm queue runs what is left at its next poll, then stops
}

const std::string& PacedSerialQueue::label() const { return state_->inner->label(); }

void PacedSerialQueue::async(Task task) {
  bool wake = false;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->pending.push_back(std::move(task));
    wake = !state_->warm;
    state_->warm = true;
  }
  if (wake) {
    state_->inner->async([state = state_] {
      state->lastWork = std::chrono::steady_clock::now();
      state->poll();
    });
  }
}

void PacedSerialQueue::sync(Task task) {
  state_->inner->sync([state = state_.get(), &task] {
    state->runPending();
    task();
  });
}

void PacedSerialQueue::asyncAfter(std::chrono::nanoseconds delay, Task task) {
  // Work submitted before the timer fires keeps its place in front.
  state_->inner->asyncAfter(delay, [state = state_, task = std::move(task)] {
    state->runPending();
    task();
  });
}

}  // namespace omra
