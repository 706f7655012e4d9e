// Runs keyed jobs on a bounded pool of worker threads. Triggers for a key that is already queued
// or running fold into at most one re-run after it, so a burst of triggers costs at most two runs.
// Owns its threads; every method is thread-safe.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace omra::server {

class JobRunner {
 public:
  using Work = std::function<void()>;

  struct Stats {
    uint64_t runs = 0;     // jobs started
    uint64_t folded = 0;   // triggers absorbed by a queued job
    uint64_t dropped = 0;  // queued jobs discarded by stop()
  };

  explicit JobRunner(int workers);
  ~JobRunner();
  JobRunner(const JobRunner&) = delete;
  JobRunner& operator=(const JobRunner&) = delete;

  // Queues work for key; the newest work given for a key is the one that runs. False once
  // stopping. Thread-safe.
  bool trigger(const std::string& key, Work work);
  // Blocks until nothing is queued or running. Thread-safe.
  void waitIdle();
  // Finishes the running jobs, drops the queued ones and joins the workers; later triggers are
  // refused. Idempotent; thread-safe.
  void stop();
  Stats stats() const;

 private:
  struct KeyState {
    Work next;            // the work of the pending run
    bool queued = false;  // a run is pending (in queue_, or after the running one)
    bool running = false;
  };
  void workerLoop();

  mutable std::mutex mu_;
  std::condition_variable wake_, idle_;
  std::deque<std::string> queue_;  // keys ready to run
  std::map<std::string, KeyState> keys_;
  int running_ = 0;
  bool stopping_ = false;
  Stats stats_;
  std::vector<std::thread> workers_;
  std::once_flag joined_;
};

}  // namespace omra::server
