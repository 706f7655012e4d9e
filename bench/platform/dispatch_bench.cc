// Dispatch costs: serial-queue throughput, sync round trips, main-queue hand-offs and delayed
// task accuracy.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>
#include <vector>

#include "src/platform/asio_dispatcher.h"

using namespace omra;
using Clock = std::chrono::steady_clock;

namespace {
double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }
}  // namespace

int main() {
  AsioDispatcher dispatcher(3);
  auto q = dispatcher.makeSerialQueue("com.omra.bench");

  constexpr int kTasks = 500000;
  long counter = 0;  // touched only on q
  auto start = Clock::now();
  for (int i = 0; i < kTasks; ++i) q->async([&counter] { ++counter; });
  q->sync([] {});
  auto asyncTook = Clock::now() - start;
  if (counter != kTasks) std::fprintf(stderr, "lost tasks\n");

  constexpr int kSyncs = 20000;
  start = Clock::now();
  for (int i = 0; i < kSyncs; ++i) q->sync([&counter] { ++counter; });
  auto syncTook = Clock::now() - start;

  // Four queues fed at once: the pool spreads them over its threads.
  std::vector<std::shared_ptr<SerialQueue>> queues;
  std::vector<long> counts(4, 0);
  for (int i = 0; i < 4; ++i)
    queues.push_back(dispatcher.makeSerialQueue("com.omra.bench." + std::to_string(i)));
  start = Clock::now();
  for (int i = 0; i < kTasks; ++i) {
    long* c = &counts[i % 4];
    queues[i % 4]->async([c] { ++*c; });
  }
  for (auto& each : queues) each->sync([] {});
  auto fourTook = Clock::now() - start;

  constexpr int kHandOffs = 20000;
  start = Clock::now();
  for (int i = 0; i < kHandOffs; ++i) {
    std::promise<void> p;
    dispatcher.mainQueue().post([&p] { p.set_value(); });
    p.get_future().wait();
  }
  auto mainTook = Clock::now() - start;

  constexpr int kDelayed = 50;
  double lateSum = 0;
  for (int i = 0; i < kDelayed; ++i) {
    std::promise<Clock::time_point> p;
    auto due = Clock::now() + std::chrono::milliseconds(2);
    q->asyncAfter(std::chrono::milliseconds(2), [&p] { p.set_value(Clock::now()); });
    lateSum += seconds(p.get_future().get() - due);
  }

  std::printf("figure serial_async_throughput %.0f tasks/s\n", kTasks / seconds(asyncTook));
  std::printf("figure four_queue_async_throughput %.0f tasks/s\n", kTasks / seconds(fourTook));
  std::printf("figure serial_sync_round_trip %.2f us\n", seconds(syncTook) / kSyncs * 1e6);
  std::printf("figure main_queue_hand_off %.2f us\n", seconds(mainTook) / kHandOffs * 1e6);
  std::printf("figure async_after_lateness %.0f us\n", lateSum / kDelayed * 1e6);
  return 0;
}
