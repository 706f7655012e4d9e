#include "server/job_runner.h"

namespace omra::server {

JobRunner::JobRunner(int workers) {
  if (workers < 1) workers = 1;
  for (int i = 0; i < workers; ++i) workers_.emplace_back([this] { workerLoop(); });
}

JobRunner::~JobRunner() { stop(); }

bool JobRunner::trigger(const std::string& key, Work work) {
  std::lock_guard<std::mutex> lock(mu_);
  if (stopping_) return false;
  KeyState& s = keys_[key];
  s.next = std::move(work);
  if (s.queued) {
    ++stats_.folded;
    return true;
  }
  s.queued = true;
  // A running key is queued again by its worker when the run ends.
  if (!s.running) {
    queue_.push_back(key);
    wake_.notify_one();
  }
  return true;
}

void JobRunner::workerLoop() {
  std::unique_lock<std::mutex> lock(mu_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (stopping_) return;
    const std::string key = std::move(queue_.front());
    queue_.pop_front();
    KeyState& s = keys_[key];
    Work work = std::move(s.next);
    s.next = nullptr;
    s.queued = false;
    s.running = true;
    ++running_;
    ++stats_.runs;
    lock.unlock();
    if (work) work();
    lock.lock();
    --running_;
    KeyState& after = keys_[key];
    after.running = false;
    if (after.queued && !stopping_) {
      queue_.push_back(key);
      wake_.notify_one();
    } else {
      if (after.queued) ++stats_.dropped;
      keys_.erase(key);
    }
    if (queue_.empty() && running_ == 0) idle_.notify_all();
  }
}

void JobRunner::waitIdle() {
  std::unique_lock<std::mutex> lock(mu_);
  idle_.wait(lock, [this] { return (queue_.empty() && running_ == 0) || stopping_; });
}

void JobRunner::stop() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!stopping_) {
      stopping_ = true;
      stats_.dropped += queue_.size();
      for (const std::string& key : queue_) keys_.erase(key);
      queue_.clear();
    }
  }
  wake_.notify_all();
  idle_.notify_all();
  std::call_once(joined_, [this] {
    for (std::thread& t : workers_) t.join();
  });
}

JobRunner::Stats JobRunner::stats() const {
  std::lock_guard<std::mutex> lock(mu_);
  return stats_;
}

}  // namespace omra::server
