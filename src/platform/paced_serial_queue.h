// A serial queue for work that arrives at a steady pace, such as one task per camera frame.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "omrakit/platform/dispatch.h"

namespace omra {

// Wraps a serial queue so that async() does not wake a thread while the queue is warm: the task is
// appended to a list that the queue itself looks at every `poll`. Waking a sleeping worker costs
// the caller a system call and a cross-CPU interrupt (tens of microseconds in a VM), which a frame
// thread cannot afford 60 times a second. After `idle` without work the queue goes cold, and the
// next async() wakes it the ordinary way. The price is up to `poll` of added latency.
//
// Thread-safe. Tasks run on the inner queue, in submission order, one at a time. Dropping the
// queue stops its polling; tasks already submitted still run.
class PacedSerialQueue : public SerialQueue {
 public:
  struct Options {
    std::chrono::nanoseconds poll = std::chrono::milliseconds(4);
    std::chrono::nanoseconds idle = std::chrono::milliseconds(250);
  };

  PacedSerialQueue(std::shared_ptr<SerialQueue> inner, Options options);
  ~PacedSerialQueue() override;

  const std::string& label() const override;
  void async(Task task) override;
  // Runs the tasks submitted before it first, then task.
  void sync(Task task) override;
  void asyncAfter(std::chrono::nanoseconds delay, Task task) override;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace omra
