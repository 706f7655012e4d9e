#include "src/platform/store/retry_backoff.h"

#include <algorithm>

namespace omra {

RetryBackoff::RetryBackoff(Options options)
    : options_(options), random_(options.seed != 0 ? options.seed : std::random_device{}()) {}

std::chrono::milliseconds RetryBackoff::ceiling(int failures) const {
  const int64_t base = std::max<int64_t>(1, options_.base.count());
  const int64_t cap = std::max<int64_t>(base, options_.cap.count());
  int64_t bound = base;
  for (int i = 1; i < failures && bound < cap; ++i) bound *= 2;  // no overflow: stops at cap
  return std::chrono::milliseconds(std::min(bound, cap));
}

std::chrono::milliseconds RetryBackoff::next(int failures,
                                             std::optional<std::chrono::seconds> retryAfter) {
  std::uniform_int_distribution<int64_t> pick(0, ceiling(failures).count());
  std::chrono::milliseconds wait(pick(random_));
  if (retryAfter && retryAfter->count() > 0) {
    const auto asked = std::min<std::chrono::milliseconds>(*retryAfter, options_.maxRetryAfter);
    wait = std::max(wait, asked);
  }
  return wait;
}

}  // namespace omra
