// Per-account token buckets: refusals and their Retry-After, refill, independence of accounts,
// bounded memory, exact accounting under concurrent use, and the 429 answer of the routes.
#include "server/account_quotas.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/server/service_testutil.h"

namespace omra::server {
namespace {

using namespace std::chrono_literals;

// A clock the test moves by hand.
struct ManualClock {
  std::atomic<int64_t> micros{0};
  AccountQuotas::Clock::time_point now() const {
    return AccountQuotas::Clock::time_point(std::chrono::microseconds(micros.load()));
  }
  void advance(std::chrono::microseconds d) { micros += d.count(); }
  std::function<AccountQuotas::Clock::time_point()> fn() {
    return [this] { return now(); };
  }
};

TEST(AccountQuotas, BucketsRefuseRefillAndNameTheWait) {
  struct Step {
    std::chrono::milliseconds after;  // clock moves this much first
    size_t bytes;
    bool allowed;
    int64_t retryAfter;  // when refused
  };
  struct Case {
    const char* name;
    QuotaOptions options;
    std::vector<Step> steps;
  };
  const QuotaOptions requests{2, 3, 0, 0};   // 2 a second, burst 3, bytes off
  const QuotaOptions bytes{0, 0, 100, 250};  // requests off, 100 bytes a second, burst 250
  const Case cases[] = {
      {"burst then refuse",
       requests,
       {{0ms, 0, true, 0}, {0ms, 0, true, 0}, {0ms, 0, true, 0}, {0ms, 0, false, 1}}},
      {"half a token is not enough; a whole one is",
       requests,
       {{0ms, 0, true, 0},
        {0ms, 0, true, 0},
        {0ms, 0, true, 0},
        {250ms, 0, false, 1},
        {250ms, 0, true, 0},
        {0ms, 0, false, 1}}},
      {"refill stops at the burst",
       requests,
       {{0ms, 0, true, 0},
        {60000ms, 0, true, 0},
        {0ms, 0, true, 0},
        {0ms, 0, true, 0},
        {0ms, 0, false, 1}}},
      {"bytes: wait rounded up to whole seconds",
       bytes,
       {{0ms, 200, true, 0}, {0ms, 200, false, 2}, {1000ms, 200, false, 1}, {500ms, 200, true, 0}}},
      {"bytes: a body over the burst needs a full bucket and leaves a debt",
       bytes,
       {{0ms, 1000, true, 0}, {0ms, 1, false, 8}, {7500ms, 1, false, 1}, {500ms, 1, true, 0}}},
      {"both off", QuotaOptions{0, 0, 0, 0}, {{0ms, 1u << 30, true, 0}, {0ms, 1u << 30, true, 0}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ManualClock clock;
    AccountQuotas quotas(c.options, clock.fn());
    for (size_t i = 0; i < c.steps.size(); ++i) {
      const Step& s = c.steps[i];
      clock.advance(s.after);
      const auto v = quotas.charge("acct", s.bytes);
      EXPECT_EQ(v.allowed, s.allowed) << "step " << i;
      if (!s.allowed) {
        EXPECT_EQ(v.retryAfterSeconds, s.retryAfter) << "step " << i;
      }
    }
  }
}

TEST(AccountQuotas, AccountsAreIndependentAndMemoryIsBounded) {
  ManualClock clock;
  QuotaOptions o{1, 1, 0, 0};
  o.maxAccounts = 64;
  AccountQuotas quotas(o, clock.fn());
  EXPECT_TRUE(quotas.charge("a", 0).allowed);
  EXPECT_FALSE(quotas.charge("a", 0).allowed);
  EXPECT_TRUE(quotas.charge("b", 0).allowed) << "b has its own bucket";
  for (int i = 0; i < 5000; ++i) {
    EXPECT_TRUE(quotas.charge("account-" + std::to_string(i), 0).allowed);
    if (i % 100 == 0) clock.advance(1ms);
  }
  EXPECT_LE(quotas.trackedAccounts(), o.maxAccounts);
  // Forgotten or not, an account idle for a second has its token back.
  clock.advance(1s);
  EXPECT_TRUE(quotas.charge("a", 0).allowed);
}

TEST(AccountQuotas, ConcurrentChargesSpendExactlyTheBurst) {
  ManualClock clock;  // time stands still: nothing refills
  AccountQuotas quotas(QuotaOptions{1, 1000, 0, 0}, clock.fn());
  std::atomic<int> allowed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 400; ++i) allowed += quotas.charge("shared", 0).allowed;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(allowed.load(), 1000);
}

TEST(AccountQuotas, RoutesAnswer429WithRetryAfter) {
  ManualClock clock;
  MapServiceOptions o;
  o.quotas = QuotaOptions{0.5, 2, 0, 0};
  o.clock = clock.fn();
  testing::ServiceHarness h(std::move(o));
  const Json body = testing::openingBody(testing::kAccountA, "m");
  EXPECT_EQ(h.post(testing::kAccountA, "/prod/maps/create_map", body).status, 200);
  EXPECT_EQ(h.post(testing::kAccountA, "/prod/maps/create_map", body).status, 200);
  const Answer refused = h.post(testing::kAccountA, "/prod/maps/create_map", body);
  EXPECT_EQ(refused.status, 429);
  EXPECT_EQ(refused.body, (Json{{"errorMessage", "Too many requests for this account"}}));
  EXPECT_EQ(refused.headers, (std::map<std::string, std::string>{{"Retry-After", "2"}}));
  EXPECT_EQ(h.store().itemCount("OmraServer-Maps"), 2u) << "a refused request stores nothing";
  EXPECT_EQ(h.post(testing::kAccountB, "/prod/maps/create_map",
                   testing::openingBody(testing::kAccountB, "m"))
                .status,
            200);
  clock.advance(2s);
  EXPECT_EQ(h.post(testing::kAccountA, "/prod/maps/create_map", body).status, 200);
}

}  // namespace
}  // namespace omra::server
