#include "server/job_runner.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "server/session_follower.h"

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

// Records run the localizers the kit asked for again: not before the interval since the last
// run (backing off as the session goes on unanswered), not after the window since the first
// request or a written result, never for a session nobody asked about.
TEST(SessionFollower, RerunsWhatWasAskedWithinItsWindow) {
  using namespace std::chrono_literals;
  using Clock = SessionFollower::Clock;
  const Clock::time_point t0{};
  SessionFollower f(
      {.followSeconds = 10, .intervalSeconds = 1, .backoffShare = 0.25, .maxSessions = 2});
  f.asked("s", "m", "full_image_matcher", t0);
  f.asked("s", "m", "su_localizer", t0 + 200ms);
  f.asked("s", "other map", "su_localizer_seeded", t0 + 300ms);  // not this session's map
  struct Step {
    const char* name;
    const char* session;
    Clock::duration at;
    int localizers;  // -1: nothing to run
  };
  const Step steps[] = {
      {"unknown session", "x", 5s, -1},
      {"within the interval of the kit's own request", "s", 900ms, -1},
      {"after it", "s", 1300ms, 2},
      {"within the interval of that run", "s", 2s, -1},
      {"the next interval", "s", 2400ms, 2},
      {"backed off to a quarter of the time followed", "s", 6s, 2},
      {"within the backed-off interval", "s", 7800ms, -1},
      {"after it", "s", 8100ms, 2},
      {"past the window", "s", 10100ms, -1},
      {"forgotten after the window", "s", 10500ms, -1},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    auto rerun = f.recordsArrived(step.session, t0 + step.at);
    if (step.localizers < 0) {
      EXPECT_FALSE(rerun);
      continue;
    }
    ASSERT_TRUE(rerun);
    EXPECT_EQ(rerun->mapUuid, "m");
    EXPECT_EQ(rerun->localizers, (std::vector<std::string>{"full_image_matcher", "su_localizer"}));
  }
  // Once answered, records run nothing more, even after the kit asks again.
  f.asked("t", "m", "su_localizer", t0 + 11s);
  f.answered("t");
  EXPECT_FALSE(f.recordsArrived("t", t0 + 13s));
  f.asked("t", "m", "su_localizer", t0 + 14s);
  EXPECT_FALSE(f.recordsArrived("t", t0 + 16s));
  // Bounded: a third session pushes out the oldest.
  f.asked("a", "m", "su_localizer", t0 + 20s);
  f.asked("b", "m", "su_localizer", t0 + 21s);
  f.asked("c", "m", "su_localizer", t0 + 22s);
  EXPECT_FALSE(f.recordsArrived("a", t0 + 25s));
  EXPECT_TRUE(f.recordsArrived("b", t0 + 25s));
  EXPECT_TRUE(f.recordsArrived("c", t0 + 25s));
  // Off.
  SessionFollower off({.followSeconds = 0});
  off.asked("s", "m", "su_localizer", t0);
  EXPECT_FALSE(off.recordsArrived("s", t0 + 2s));
}

}  // namespace
}  // namespace omra::server
