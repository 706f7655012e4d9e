#include "src/platform/manual_main_queue.h"

#include <algorithm>

namespace omra {

ManualMainQueue::ManualMainQueue() : owner_(std::this_thread::get_id()) {}

void ManualMainQueue::post(Task task) {
  std::lock_guard<std::mutex> lock(mutex_);
  tasks_.push_back(std::move(task));
  cv_.notify_all();
}

bool ManualMainQueue::isCurrent() const { return std::this_thread::get_id() == owner_; }

size_t ManualMainQueue::runPending() {
  std::deque<Task> batch;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    batch.swap(tasks_);
  }
  for (auto& task : batch) task();
  return batch.size();
}

bool ManualMainQueue::runUntil(const std::function<bool()>& pred,
                               std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    runPending();
    if (pred()) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    // Short slices: pred() may turn true through other threads without anything being posted.
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(5)),
                   [this] { return !tasks_.empty(); });
  }
}

size_t ManualMainQueue::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tasks_.size();
}

}  // namespace omra
