#include "src/platform/kit_main_queue.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <mutex>
#include <optional>

#include "src/foundation/fatal.h"

namespace omra {

struct KitMainQueue::State {
  asio::io_context context{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
  std::thread thread;
  std::atomic<bool> stopped{false};
  std::mutex shutdownMutex;
};

KitMainQueue::KitMainQueue() : state_(std::make_unique<State>()) {
  state_->guard.emplace(state_->context.get_executor());
  state_->thread = std::thread([s = state_.get()] { s->context.run(); });
}

KitMainQueue::~KitMainQueue() { shutdown(); }

void KitMainQueue::post(Task task) {
  if (state_->stopped.load()) return;
  asio::post(state_->context, std::move(task));
}

bool KitMainQueue::isCurrent() const {
  return state_->context.get_executor().running_in_this_thread();
}

void KitMainQueue::shutdown() {
  std::lock_guard<std::mutex> lock(state_->shutdownMutex);
  if (!state_->thread.joinable()) return;
  if (isCurrent()) fatalError("KitMainQueue::shutdown called from the main queue itself");
  state_->stopped.store(true);
  // Without the guard, run() returns once the queue is empty.
  state_->guard.reset();
  state_->thread.join();
}

}  // namespace omra
