#include "src/platform/paced_serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "src/platform/asio_dispatcher.h"

namespace omra {
namespace {

using namespace std::chrono_literals;

// Counts the wakes (async calls) the paced queue makes on the queue underneath.
class CountingQueue : public SerialQueue {
 public:
  explicit CountingQueue(std::shared_ptr<SerialQueue> inner) : inner_(std::move(inner)) {}
  const std::string& label() const override { return inner_->label(); }
  void async(Task task) override {
    ++wakes;
    inner_->async(std::move(task));
  }
  void sync(Task task) override { inner_->sync(std::move(task)); }
  void asyncAfter(std::chrono::nanoseconds delay, Task task) override {
    inner_->asyncAfter(delay, std::move(task));
  }
  std::atomic<int> wakes{0};

 private:
  std::shared_ptr<SerialQueue> inner_;
};

struct PacedFixture {
  AsioDispatcher dispatcher{2};
  std::shared_ptr<CountingQueue> inner =
      std::make_shared<CountingQueue>(dispatcher.makeSerialQueue("com.omra.test.paced"));
};

TEST(PacedSerialQueueTest, RunsEverythingInOrderOneAtATime) {
  PacedFixture f;
  PacedSerialQueue queue(f.inner, {.poll = 1ms, .idle = 20ms});
  EXPECT_EQ(queue.label(), "com.omra.test.paced");
  std::vector<int> order;  // touched only on the queue: a race would show under TSan
  std::atomic<int> inside{0}, maxInside{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < 4; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < 200; ++i) {
        queue.async([&, value = p * 1000 + i] {
          maxInside = std::max(maxInside.load(), ++inside);
          order.push_back(value);
          --inside;
        });
        if (i % 50 == 0) std::this_thread::sleep_for(2ms);
      }
    });
  }
  for (auto& t : producers) t.join();
  // sync runs after everything submitted before it, on the queue's thread.
  std::thread::id ranOn;
  queue.sync([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_NE(ranOn, std::this_thread::get_id());
  ASSERT_EQ(order.size(), 800u);
  std::vector<int> next(4, 0);
  for (int value : order)
    EXPECT_EQ(value % 1000, next[value / 1000]++) << "producer " << value / 1000;
  EXPECT_EQ(maxInside.load(), 1);
}

TEST(PacedSerialQueueTest, WakesItsWorkerOnlyWhenCold) {
  PacedFixture f;
  PacedSerialQueue queue(f.inner, {.poll = 2ms, .idle = 1s});
  std::atomic<int> ran{0};
  // Thirty tasks 5 ms apart: the first wakes the queue, the rest are found by its polls.
  for (int i = 0; i < 30; ++i) {
    queue.async([&] { ++ran; });
    std::this_thread::sleep_for(5ms);
  }
  queue.sync([] {});
  EXPECT_EQ(ran.load(), 30);
  EXPECT_EQ(f.inner->wakes.load(), 1);

  // Left idle, it goes cold; the next task wakes it again and still runs promptly.
  std::this_thread::sleep_for(1300ms);
  std::promise<void> done;
  const auto start = std::chrono::steady_clock::now();
  queue.async([&] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(f.inner->wakes.load(), 2);
}

TEST(PacedSerialQueueTest, SubmittedWorkOutlivesTheQueueObject) {
  PacedFixture f;
  std::atomic<int> ran{0};
  std::promise<void> last;
  {
    PacedSerialQueue queue(f.inner, {.poll = 20ms, .idle = 1s});
    queue.async([&] { ++ran; });
    std::this_thread::sleep_for(5ms);  // warm now: the next ones wait for a poll
    for (int i = 0; i < 9; ++i) queue.async([&] { ++ran; });
    queue.async([&] { last.set_value(); });
  }
  ASSERT_EQ(last.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_EQ(ran.load(), 10);
}

TEST(PacedSerialQueueTest, DelayedTaskRunsBehindEarlierWork) {
  PacedFixture f;
  PacedSerialQueue queue(f.inner, {.poll = 50ms, .idle = 1s});
  std::vector<int> order;
  std::promise<void> done;
  queue.async([&] { order.push_back(1); });
  std::this_thread::sleep_for(5ms);
  queue.async([&] { order.push_back(2); });  // waits for the 50 ms poll
  queue.asyncAfter(1ms, [&] {
    order.push_back(3);
    done.set_value();
  });
  ASSERT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

}  // namespace
}  // namespace omra
