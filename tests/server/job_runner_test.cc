#include "server/job_runner.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace omra::server {
namespace {

// A gate that jobs wait on until the test opens it.
class Gate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mu_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mu_);
    open_ = true;
    changed_.notify_all();
  }
  // Blocks until n jobs wait at the gate.
  void awaitWaiting(int n) {
    std::unique_lock<std::mutex> lock(mu_);
    changed_.wait(lock, [&] { return waiting_ >= n; });
  }

 private:
  std::mutex mu_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

TEST(JobRunner, ABurstOfTriggersCostsAtMostTwoRunsAndTheLastWorkRuns) {
  JobRunner runner(2);
  Gate gate;
  std::mutex mu;
  std::vector<int> ran;
  auto job = [&](int value) {
    return [&, value] {
      if (value == 0) gate.wait();
      std::lock_guard<std::mutex> lock(mu);
      ran.push_back(value);
    };
  };
  ASSERT_TRUE(runner.trigger("S/su_localizer", job(0)));
  gate.awaitWaiting(1);  // the first run is under way
  for (int i = 1; i <= 10; ++i) runner.trigger("S/su_localizer", job(i));
  gate.open();
  runner.waitIdle();
  EXPECT_EQ(ran, (std::vector<int>{0, 10}));
  const JobRunner::Stats s = runner.stats();
  EXPECT_EQ(s.runs, 2u);
  EXPECT_EQ(s.folded, 9u);
}

TEST(JobRunner, KeysRunIndependentlyOnABoundedPool) {
  constexpr int kWorkers = 2, kKeys = 6;
  JobRunner runner(kWorkers);
  std::atomic<int> running{0}, most{0}, done{0};
  Gate gate;
  for (int k = 0; k < kKeys; ++k) {
    runner.trigger("key" + std::to_string(k), [&] {
      const int now = ++running;
      int seen = most.load();
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      gate.wait();
      --running;
      ++done;
    });
  }
  gate.awaitWaiting(kWorkers);
  gate.open();
  runner.waitIdle();
  EXPECT_EQ(done.load(), kKeys);
  EXPECT_EQ(most.load(), kWorkers);
}

TEST(JobRunner, StopFinishesRunningJobsAndDropsQueuedOnes) {
  JobRunner runner(1);
  Gate gate;
  std::atomic<bool> firstDone{false}, secondRan{false};
  runner.trigger("a", [&] {
    gate.wait();
    firstDone = true;
  });
  gate.awaitWaiting(1);
  runner.trigger("b", [&] { secondRan = true; });
  runner.trigger("a", [&] { secondRan = true; });  // a re-run of the running key
  std::thread stopper([&] { runner.stop(); });
  // stop() is now waiting for the running job; let it finish.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  gate.open();
  stopper.join();
  EXPECT_TRUE(firstDone);
  EXPECT_FALSE(secondRan);
  EXPECT_EQ(runner.stats().dropped, 2u);
  EXPECT_FALSE(runner.trigger("c", [] {}));
  runner.stop();  // idempotent
}

}  // namespace
}  // namespace omra::server
