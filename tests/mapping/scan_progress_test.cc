#include "src/mapping/scan_progress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/mapping/mapping_testutil.h"

namespace omra {
namespace {

// Runs events through a ScanProgress with the two registrations Persistence makes, and logs
// which trigger fired at which event.
struct ProgressRun {
  explicit ProgressRun(SessionMode mode) : harness(mode) {
    progress = std::make_unique<ScanProgress>(harness.state,
                                              [this](int64_t count) { counts.push_back(count); });
    progress->registerTrigger([this] { fired.push_back("image@" + std::to_string(counts.back())); },
                              1);
    progress->registerTrigger(
        [this] { fired.push_back("transform@" + std::to_string(counts.back())); }, 4);
  }
  size_t metricCount() const {
    size_t n = 0;
    for (const std::string& name : harness.metricNames()) {
      n += name == "OmraKit.TriggerTransformComputeTime";
    }
    return n;
  }
  MappingHarness harness;
  std::unique_ptr<ScanProgress> progress;
  std::vector<int64_t> counts;
  std::vector<std::string> fired;
};

TEST(ScanProgress, MappingModeReportsCountsAndFiresNothing) {
  ProgressRun run(SessionMode::mapping);
  run.harness.setReadyNow();
  for (int i = 0; i < 4; ++i) run.progress->increment();
  EXPECT_EQ(run.counts, (std::vector<int64_t>{1, 2, 3, 4}));
  EXPECT_TRUE(run.fired.empty());
  EXPECT_EQ(run.metricCount(), 0u);
}

TEST(ScanProgress, LocalizationFiresFromEachThresholdOn) {
  ProgressRun run(SessionMode::localization);
  run.harness.setReadyNow();
  for (int i = 0; i < 5; ++i) run.progress->increment();
  EXPECT_EQ(run.fired, (std::vector<std::string>{"image@1", "image@2", "image@3", "image@4",
                                                 "transform@4", "image@5", "transform@5"}));
  // Once per trigger, at the event that reaches its threshold; each with and without devKey.
  EXPECT_EQ(run.metricCount(), 4u);
  std::vector<MetricDatum> data = run.harness.metrics->data();
  ASSERT_FALSE(data.empty());
  EXPECT_EQ(data[0].unit, "Seconds");
  EXPECT_GE(data[0].value, 0.0);
}

TEST(ScanProgress, NoReadyTimeSkipsTheEventThatReachesAThreshold) {
  ProgressRun run(SessionMode::localization);
  run.progress->increment();  // reaches threshold 1 before the session is ready
  EXPECT_TRUE(run.fired.empty());
  EXPECT_EQ(run.counts, (std::vector<int64_t>{1}));
  run.progress->increment();  // past the threshold: fires without a metric
  EXPECT_EQ(run.fired, (std::vector<std::string>{"image@2"}));
  EXPECT_EQ(run.metricCount(), 0u);
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
