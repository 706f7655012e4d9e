// Per-account rate limits: one token bucket on requests and one on request body bytes for each
// account this process has seen recently. Each server process keeps its own buckets (replicas
// behind a load balancer each allow the full rate). Owned by the map service; thread-safe.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

namespace omra::server {

struct QuotaOptions {
  // Sustained rate and burst of each bucket; a rate of 0 turns that bucket off.
  double requestsPerSecond = 200;
  double requestBurst = 2000;
  double bytesPerSecond = 32.0 * 1024 * 1024;
  double byteBurst = 256.0 * 1024 * 1024;
  // Accounts tracked at once; beyond it the idlest are forgotten (a forgotten account starts
  // again with full buckets, which is what an idle one has anyway).
  size_t maxAccounts = 100000;
};

class AccountQuotas {
 public:
  using Clock = std::chrono::steady_clock;

  explicit AccountQuotas(QuotaOptions options, std::function<Clock::time_point()> now = Clock::now);

  struct Verdict {
    bool allowed = true;
    // When refused: whole seconds until the same request would be allowed (at least 1).
    int64_t retryAfterSeconds = 0;
  };
  // Takes one request and `bytes` from the account's buckets when both have enough; otherwise
  // takes nothing. A request larger than a bucket's burst is allowed once the bucket is full.
  Verdict charge(const std::string& account, size_t bytes);

  // Accounts currently tracked.
  size_t trackedAccounts() const;

 private:
  struct Bucket {
    double tokens = 0;
    Clock::time_point updated;
  };
  struct Entry {
    Bucket requests, bytes;
    Clock::time_point lastSeen;
  };
  struct Shard {
    mutable std::mutex mu;  // guards entries
    std::unordered_map<std::string, Entry> entries;
  };
  static constexpr size_t kShards = 16;

  void evict(Shard& shard, Clock::time_point now);

  QuotaOptions options_;
  std::function<Clock::time_point()> now_;
  std::array<Shard, kShards> shards_;
};

}  // namespace omra::server
