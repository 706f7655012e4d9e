#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include "src/platform/asio_dispatcher.h"
#include "src/platform/manual_main_queue.h"

namespace omra {
namespace {

using namespace std::chrono_literals;

TEST(AsioDispatcherTest, SerialQueueRunsInOrderOneAtATime) {
  AsioDispatcher d(4);
  auto q = d.makeSerialQueue("com.omra.test.serial");
  std::vector<int> order;  // touched only on q: a race would show under TSan
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 500; ++i) {
    q->async([&, i] {
      if (++inside > 1) overlapped = true;
      order.push_back(i);
      --inside;
    });
  }
  // sync waits for everything queued before it and runs on the queue, not the caller.
  std::thread::id ranOn;
  q->sync([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_NE(ranOn, std::this_thread::get_id());
  std::vector<int> expected(500);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  EXPECT_FALSE(overlapped.load());
}

TEST(AsioDispatcherTest, DistinctQueuesAndBackgroundRunConcurrently) {
  AsioDispatcher d(2);
  auto a = d.makeSerialQueue("a");
  auto b = d.makeSerialQueue("b");
  std::promise<void> bRan;
  auto bRanFuture = bRan.get_future();
  std::atomic<bool> aSawB{false};
  // a blocks until b's task ran: this only finishes when the queues do not share one thread.
  a->async([&] { aSawB = bRanFuture.wait_for(5s) == std::future_status::ready; });
  b->async([&] { bRan.set_value(); });
  a->sync([] {});
  EXPECT_TRUE(aSawB.load());
  std::promise<std::thread::id> p;
  d.background([&] { p.set_value(std::this_thread::get_id()); });
  EXPECT_NE(p.get_future().get(), std::this_thread::get_id());
}

TEST(AsioDispatcherDeathTest, SelfDeadlocksAreFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        AsioDispatcher d(1);
        auto q = d.makeSerialQueue("com.omra.self");
        q->sync([&] { q->sync([] {}); });
      },
      "com.omra.self");
  EXPECT_DEATH(
      {
        auto d = std::make_shared<AsioDispatcher>(1);
        auto q = d->makeSerialQueue("q");
        std::promise<void> never;
        q->async([d = std::move(d)]() mutable { d.reset(); });
        never.get_future().wait_for(5s);
      },
      "destroyed from one of its own queues");
}

TEST(AsioDispatcherTest, AsyncAfterWaitsAndKeepsQueueOrder) {
  AsioDispatcher d;
  auto q = d.makeSerialQueue("q");
  std::vector<int> order;  // touched only on q; read after the last task's promise
  auto start = std::chrono::steady_clock::now();
  std::promise<std::chrono::steady_clock::duration> late;
  q->asyncAfter(60ms, [&] {
    order.push_back(2);
    late.set_value(std::chrono::steady_clock::now() - start);
  });
  q->asyncAfter(20ms, [&] { order.push_back(1); });
  q->async([&] { order.push_back(0); });
  EXPECT_GE(late.get_future().get(), 60ms);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(AsioDispatcherTest, DestructionDropsPendingDelayedTasksAndFinishesQueuedOnes) {
  std::atomic<int> ran{0}, delayedRan{0}, lateRan{0};
  // Outlives the dispatcher, as a queue captured by a task on a host's loop does.
  std::shared_ptr<SerialQueue> q;
  {
    AsioDispatcher d;
    q = d.makeSerialQueue("q");
    q->asyncAfter(10s, [&] { ++delayedRan; });
    for (int i = 0; i < 20; ++i) {
      q->async([&] {
        std::this_thread::sleep_for(1ms);
        ++ran;
      });
    }
    EXPECT_EQ(d.pendingDelayedTasks(), 1u);
    // A delayed task posted during shutdown must not keep the dispatcher alive either.
    q->async([q] { q->asyncAfter(10s, [] {}); });
  }
  EXPECT_EQ(ran.load(), 20);
  EXPECT_EQ(delayedRan.load(), 0);
  q->async([&] { ++lateRan; });
  q->asyncAfter(1ms, [&] { ++lateRan; });
  q.reset();  // ASan/TSan: the strand must not touch the pool's freed state
  EXPECT_EQ(lateRan.load(), 0);
}

TEST(AsioDispatcherTest, DefaultMainQueueIsOneKitThread) {
  AsioDispatcher d;
  EXPECT_FALSE(d.mainQueue().isCurrent());
  std::mutex m;
  std::set<std::thread::id> ids;
  std::atomic<int> ran{0}, notCurrent{0};
  std::promise<void> done;
  for (int i = 0; i < 10; ++i) {
    // Posted from pool threads, as HTTP completions and status deliveries are.
    d.background([&] {
      d.mainQueue().post([&] {
        notCurrent += !d.mainQueue().isCurrent();
        std::lock_guard<std::mutex> lock(m);
        ids.insert(std::this_thread::get_id());
        if (++ran == 10) done.set_value();
      });
    });
  }
  ASSERT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
  std::lock_guard<std::mutex> lock(m);
  EXPECT_EQ(ids.size(), 1u);
  EXPECT_EQ(ids.count(std::this_thread::get_id()), 0u);
  EXPECT_EQ(notCurrent.load(), 0);
}

TEST(AsioDispatcherTest, InstalledMainQueueReceivesPosts) {
  AsioDispatcher d;
  auto manual = std::make_shared<ManualMainQueue>();
  d.installMainQueue(manual);
  EXPECT_TRUE(d.mainQueue().isCurrent());
  std::atomic<int> ran{0};
  auto q = d.makeSerialQueue("q");
  q->async([&] { d.mainQueue().post([&] { ++ran; }); });
  q->sync([] {});
  EXPECT_EQ(ran.load(), 0);  // nothing runs until the host pumps
  EXPECT_TRUE(manual->runUntil([&] { return ran.load() == 1; }, 5s));
}

TEST(SemaphoreTest, CountsWaitsAndTimesOut) {
  AsioDispatcher d;
  auto s = d.makeSemaphore(1);
  EXPECT_TRUE(s->waitFor(0ms));
  EXPECT_FALSE(s->waitFor(10ms));
  s->signal();
  s->signal();
  EXPECT_TRUE(s->waitFor(0ms));
  EXPECT_TRUE(s->waitFor(0ms));
  EXPECT_FALSE(s->waitFor(0ms));

  // A waiter blocked on a zero count is released by a signal from another thread.
  auto gate = d.makeSemaphore(0);
  std::atomic<bool> released{false};
  std::thread waiter([&] {
    gate->wait();
    released = true;
  });
  d.background([&] { gate->signal(); });
  waiter.join();
  EXPECT_TRUE(released.load());
}

TEST(ManualMainQueueTest, RunPendingRunsOnlyWhatWasQueued) {
  ManualMainQueue q;
  std::vector<int> ran;
  q.post([&] {
    ran.push_back(1);
    q.post([&] { ran.push_back(3); });
  });
  q.post([&] { ran.push_back(2); });
  EXPECT_EQ(q.runPending(), 2u);
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  EXPECT_EQ(q.size(), 1u);
  EXPECT_EQ(q.runPending(), 1u);
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(q.runUntil([] { return false; }, 10ms));
  bool fromOther = true;
  std::thread([&] { fromOther = q.isCurrent(); }).join();
  EXPECT_FALSE(fromOther);
}

}  // namespace
}  // namespace omra
