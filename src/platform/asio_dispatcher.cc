#include "src/platform/asio_dispatcher.h"

#include <algorithm>
#include <asio/bind_executor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <condition_variable>

#include "src/foundation/fatal.h"
#include "src/platform/condition_semaphore.h"
#include "src/platform/kit_main_queue.h"

namespace omra {

using PoolStrand = asio::strand<asio::thread_pool::executor_type>;

struct AsioDispatcher::Impl {
  explicit Impl(int threads) : pool(static_cast<size_t>(threads)) {}

  asio::thread_pool pool;
  std::shared_ptr<KitMainQueue> kitMain = std::make_shared<KitMainQueue>();

  // Set once the pool has been joined; work posted after that would never run.
  std::atomic<bool> stopped{false};

  mutable std::mutex mutex;  // guards everything below
  bool shuttingDown = false;
  std::shared_ptr<MainQueue> main = kitMain;
  // Replaced main queues stay alive: callers may still hold the reference mainQueue() returned.
  std::vector<std::shared_ptr<MainQueue>> retiredMains;
  uint64_t nextTimerId = 0;
  std::unordered_map<uint64_t, std::pair<std::shared_ptr<asio::steady_timer>, PoolStrand>> timers;
};

namespace {

// One serial queue: a strand over the dispatcher's pool. Thread-safe. It shares the pool, so that
// a queue still referenced after the dispatcher is gone (say, by a task left on a host's main
// loop) can be dropped safely; work posted to it then is dropped.
class StrandQueue : public SerialQueue {
 public:
  StrandQueue(std::shared_ptr<AsioDispatcher::Impl> d, std::string label)
      : d_(std::move(d)),
        strand_(asio::make_strand(d_->pool.get_executor())),
        label_(std::move(label)) {}

  const std::string& label() const override { return label_; }

  void async(Task task) override {
    if (d_->stopped.load()) return;
    asio::post(strand_, std::move(task));
  }

  void sync(Task task) override {
    if (strand_.running_in_this_thread()) {
      fatalError("sync() called on serial queue '" + label_ + "' from that same queue");
    }
    if (d_->stopped.load()) {
      fatalError("sync() called on serial queue '" + label_ +
                 "' after its dispatcher was destroyed");
    }
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    asio::post(strand_, [&] {
      task();
      std::lock_guard<std::mutex> lock(m);
      done = true;
      cv.notify_one();
    });
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return done; });
  }

  void asyncAfter(std::chrono::nanoseconds delay, Task task) override {
    auto timer = std::make_shared<asio::steady_timer>(strand_, delay);
    AsioDispatcher::Impl* d = d_.get();
    // Registered and armed under the lock, so that the destructor's cancel() (which reads the
    // registry under the same lock) never overlaps async_wait() on this timer.
    std::lock_guard<std::mutex> lock(d_->mutex);
    if (d_->shuttingDown) return;  // the dispatcher is going away: delayed work is dropped
    const uint64_t id = d_->nextTimerId++;
    d_->timers.emplace(id, std::make_pair(timer, strand_));
    timer->async_wait(
        asio::bind_executor(strand_, [d, id, task = std::move(task)](const std::error_code& ec) {
          {
            std::lock_guard<std::mutex> lock(d->mutex);
            d->timers.erase(id);
          }
          if (!ec) task();
        }));
  }

 private:
  std::shared_ptr<AsioDispatcher::Impl> d_;
  PoolStrand strand_;
  std::string label_;
};

}  // namespace

AsioDispatcher::AsioDispatcher(int poolThreads)
    : impl_(std::make_shared<Impl>(std::clamp(poolThreads, 1, 8))) {}

AsioDispatcher::~AsioDispatcher() {
  // Joining the pool from one of its own threads would wait forever.
  if (impl_->pool.get_executor().running_in_this_thread()) {
    fatalError("AsioDispatcher destroyed from one of its own queues");
  }
  std::vector<std::pair<std::shared_ptr<asio::steady_timer>, PoolStrand>> timers;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->shuttingDown = true;
    for (auto& [id, entry] : impl_->timers) timers.push_back(entry);
  }
  // Cancel on each timer's own strand so a timer object is never touched by two threads at once.
  // (No structured binding here: clang 14 cannot capture one.)
  for (auto& entry : timers) {
    asio::post(entry.second, [timer = entry.first] { timer->cancel(); });
  }
  // Waits for queued and running work (including the cancelled timers' handlers) to finish.
  impl_->pool.join();
  impl_->stopped = true;
  impl_->kitMain->shutdown();
}

std::shared_ptr<SerialQueue> AsioDispatcher::makeSerialQueue(std::string label) {
  return std::make_shared<StrandQueue>(impl_, std::move(label));
}

void AsioDispatcher::background(Task task) { asio::post(impl_->pool, std::move(task)); }

MainQueue& AsioDispatcher::mainQueue() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return *impl_->main;
}

void AsioDispatcher::installMainQueue(std::shared_ptr<MainQueue> queue) {
  if (!queue) fatalError("installMainQueue: null queue");
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->retiredMains.push_back(std::move(impl_->main));
  impl_->main = std::move(queue);
}

std::unique_ptr<Semaphore> AsioDispatcher::makeSemaphore(int initialCount) {
  return std::make_unique<ConditionSemaphore>(initialCount);
}

size_t AsioDispatcher::pendingDelayedTasks() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->timers.size();
}

}  // namespace omra
