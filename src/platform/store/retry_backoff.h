// How long the record sender waits before it tries again: capped exponential backoff with full
// jitter, never shorter than what the back end asked for (Retry-After). Value type; pure given its
// random source; not thread-safe (one per sender).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace omra {

class RetryBackoff {
 public:
  struct Options {
    std::chrono::milliseconds base{250};
    std::chrono::milliseconds cap{60000};
    // A Retry-After beyond this is taken as this (a confused server must not park the outbox).
    std::chrono::milliseconds maxRetryAfter{std::chrono::minutes(15)};
    uint64_t seed = 0;  // 0: seeded from std::random_device
  };

  explicit RetryBackoff(Options options);

  // The wait before the next attempt after `failures` consecutive failures (1 for the first):
  // uniform in [0, min(cap, base * 2^(failures-1))], raised to retryAfter when that is longer.
  std::chrono::milliseconds next(int failures, std::optional<std::chrono::seconds> retryAfter);
  // The upper end of the jitter range after `failures` failures.
  std::chrono::milliseconds ceiling(int failures) const;

 private:
  Options options_;
  std::mt19937_64 random_;
};

}  // namespace omra
