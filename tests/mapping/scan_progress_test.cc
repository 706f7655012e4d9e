#include "src/mapping/scan_progress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/mapping/mapping_testutil.h"

namespace omra {
namespace {

// Events through a ScanProgress with the two registrations Persistence makes: the counts reported,
// which trigger fired at which count, and the trigger-time metrics posted.
TEST(ScanProgress, TriggersByModeAndReadiness) {
  const struct {
    SessionMode mode;
    bool ready;
    int events;
    const char* fired;
    size_t metrics;
  } cases[] = {
      {SessionMode::mapping, true, 4, "", 0},
      // From each threshold on; the metric once per trigger, with and without devKey.
      {SessionMode::localization, true, 5,
       " image@1 image@2 image@3 image@4 transform@4 image@5 transform@5", 4},
      // No ready time: the event that reaches a threshold is skipped, later ones fire unmeasured.
      {SessionMode::localization, false, 2, " image@2", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fired);
    MappingHarness harness(c.mode);
    std::vector<int64_t> counts, want;
    std::string fired;
    ScanProgress progress(harness.state, [&](int64_t count) { counts.push_back(count); });
    progress.registerTrigger([&] { fired += " image@" + std::to_string(counts.back()); }, 1);
    progress.registerTrigger([&] { fired += " transform@" + std::to_string(counts.back()); }, 4);
    if (c.ready) harness.setReadyNow();
    for (int i = 1; i <= c.events; ++i) {
      progress.increment();
      want.push_back(i);
    }
    EXPECT_EQ(counts, want);
    EXPECT_EQ(fired, c.fired);
    std::vector<MetricDatum> data = harness.metrics->data();
    std::erase_if(data, [](const MetricDatum& d) {
      return d.metricName != "OmraKit.TriggerTransformComputeTime";
    });
    EXPECT_EQ(data.size(), c.metrics);
    for (const MetricDatum& d : data) {
      EXPECT_EQ(d.unit, "Seconds");
      EXPECT_GE(d.value, 0.0);
    }
  }
}

TEST(ScanProgress, ConcurrentEventsGetDistinctCounts) {
  MappingHarness harness(SessionMode::mapping);
  std::mutex mutex;
  std::vector<int64_t> seen;
  ScanProgress progress(harness.state, [&](int64_t count) {
    std::lock_guard lock(mutex);
    seen.push_back(count);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 250; ++i) progress.increment();
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(progress.scanProgressCount(), 1000);
  std::sort(seen.begin(), seen.end());
  for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i], static_cast<int64_t>(i + 1));
}

}  // namespace
}  // namespace omra
