#include "server/account_quotas.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace omra::server {
namespace {

struct Rate {
  double perSecond, burst;
  bool on() const { return perSecond > 0; }
};

// Adds what the bucket earned since it was last updated; its tokens now.
double refill(double& tokens, std::chrono::steady_clock::time_point& updated,
              std::chrono::steady_clock::time_point now, Rate rate) {
  const double elapsed = std::chrono::duration<double>(now - updated).count();
  if (elapsed > 0) {
    tokens = std::min(rate.burst, tokens + elapsed * rate.perSecond);
    updated = now;
  }
  return tokens;
}

}  // namespace

AccountQuotas::AccountQuotas(QuotaOptions options, std::function<Clock::time_point()> now)
    : options_(options), now_(std::move(now)) {
  if (options_.requestBurst < 1) options_.requestBurst = 1;
  if (options_.byteBurst < 1) options_.byteBurst = 1;
  if (options_.maxAccounts < kShards) options_.maxAccounts = kShards;
}

AccountQuotas::Verdict AccountQuotas::charge(const std::string& account, size_t bytes) {
  const Rate requestRate{options_.requestsPerSecond, options_.requestBurst};
  const Rate byteRate{options_.bytesPerSecond, options_.byteBurst};
  if (!requestRate.on() && !byteRate.on()) return {};
  const Clock::time_point now = now_();
  Shard& shard = shards_[std::hash<std::string>{}(account) % kShards];
  std::lock_guard lock(shard.mu);
  auto it = shard.entries.find(account);
  if (it == shard.entries.end()) {
    if (shard.entries.size() >= options_.maxAccounts / kShards) evict(shard, now);
    Entry fresh;
    fresh.requests = {requestRate.burst, now};
    fresh.bytes = {byteRate.burst, now};
    it = shard.entries.emplace(account, fresh).first;
  }
  Entry& e = it->second;
  e.lastSeen = now;
  // A cost over the burst could never be met: it needs a full bucket instead, and leaves a debt.
  double wait = 0;
  const auto shortfall = [&](Bucket& b, Rate rate, double cost) {
    if (!rate.on()) return;
    const double need = std::min(cost, rate.burst);
    const double have = refill(b.tokens, b.updated, now, rate);
    if (have < need) wait = std::max(wait, (need - have) / rate.perSecond);
  };
  shortfall(e.requests, requestRate, 1);
  shortfall(e.bytes, byteRate, static_cast<double>(bytes));
  if (wait > 0) {
    return {false, std::max<int64_t>(1, static_cast<int64_t>(std::ceil(wait)))};
  }
  if (requestRate.on()) e.requests.tokens -= 1;
  if (byteRate.on()) e.bytes.tokens -= static_cast<double>(bytes);
  return {};
}

void AccountQuotas::evict(Shard& shard, Clock::time_point now) {
  const Rate requestRate{options_.requestsPerSecond, options_.requestBurst};
  const Rate byteRate{options_.bytesPerSecond, options_.byteBurst};
  // First every account whose buckets have refilled: forgetting it changes nothing.
  for (auto it = shard.entries.begin(); it != shard.entries.end();) {
    Entry& e = it->second;
    const bool requestsFull = !requestRate.on() || refill(e.requests.tokens, e.requests.updated,
                                                          now, requestRate) >= requestRate.burst;
    const bool bytesFull =
        !byteRate.on() || refill(e.bytes.tokens, e.bytes.updated, now, byteRate) >= byteRate.burst;
    it = requestsFull && bytesFull ? shard.entries.erase(it) : std::next(it);
  }
  if (shard.entries.size() < options_.maxAccounts / kShards) return;
  // Then the one seen longest ago.
  auto oldest = std::min_element(
      shard.entries.begin(), shard.entries.end(),
      [](const auto& a, const auto& b) { return a.second.lastSeen < b.second.lastSeen; });
  shard.entries.erase(oldest);
}

size_t AccountQuotas::trackedAccounts() const {
  size_t n = 0;
  for (const Shard& s : shards_) {
    std::lock_guard lock(s.mu);
    n += s.entries.size();
  }
  return n;
}

}  // namespace omra::server
