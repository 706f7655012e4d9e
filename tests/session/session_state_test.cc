#include "src/session/session_state.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "omrakit/map_status.h"
#include "omrakit/session_mode.h"

namespace omra {
namespace {

TEST(SessionEnumerations, RawValueConstructors) {
  EXPECT_EQ(sessionModeFromRawValue(0), SessionMode::mapping);
  EXPECT_EQ(sessionModeFromRawValue(1), SessionMode::localization);
  for (int64_t raw : {-1, 2, 100}) EXPECT_FALSE(sessionModeFromRawValue(raw)) << raw;

  const struct {
    int64_t raw;
    MapStatus status;
  } statuses[] = {{0, MapStatus::initialized},  {1, MapStatus::mapNotFound},
                  {2, MapStatus::networkError}, {3, MapStatus::reserved3},
                  {4, MapStatus::serverError},  {9, MapStatus::reserved9}};
  for (const auto& s : statuses) {
    EXPECT_EQ(mapStatusFromRawValue(s.raw), s.status) << s.raw;
    EXPECT_EQ(rawValue(s.status), s.raw);
  }
  for (int64_t raw = 0; raw <= 9; ++raw) EXPECT_TRUE(mapStatusFromRawValue(raw)) << raw;
  for (int64_t raw : {-1, 10, 11}) EXPECT_FALSE(mapStatusFromRawValue(raw)) << raw;
}

TEST(SessionState, StartsWithoutDataManagerOrReadyTime) {
  std::vector<MapStatus> statuses;
  std::vector<MapAsset> found;
  const auto start = SessionState::Clock::now();
  SessionState state(
      SessionMode::localization, "abc", nullptr, start, [&](MapStatus s) { statuses.push_back(s); },
      [&](std::vector<MapAsset> a) { found = std::move(a); });
  EXPECT_TRUE(state.isLocalizationMode());
  EXPECT_FALSE(state.readyTime());
  EXPECT_FALSE(state.secondsSinceReady());

  state.statusCallback()(MapStatus::serverError);
  state.assetsFoundCallback()({MapAsset("a", Vector3(1, 2, 3), 0.5f)});
  EXPECT_EQ(statuses, std::vector<MapStatus>{MapStatus::serverError});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].confidence, -1.0f);
  EXPECT_EQ(found[0].matrix, "");

  state.setReadyTime(start + std::chrono::seconds(2));
  EXPECT_DOUBLE_EQ(*state.secondsSinceReady(start + std::chrono::milliseconds(4500)), 2.5);
}

// dispose bumps the count on one thread while loops read it on others.
TEST(SessionState, RestartCountAcrossThreads) {
  SessionState state(SessionMode::mapping, "k", nullptr, SessionState::Clock::now(), nullptr,
                     nullptr);
  EXPECT_FALSE(state.isLocalizationMode());
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      int64_t last = 0;
      while (!stop.load()) {
        const int64_t now = state.restartCount();
        ASSERT_GE(now, last);  // only grows
        last = now;
        (void)state.readyTime();
      }
    });
  }
  std::vector<std::thread> writers;
  for (int i = 0; i < 2; ++i) {
    writers.emplace_back([&] {
      for (int j = 0; j < 500; ++j) state.incrementRestartCount();
      state.setReadyTime(SessionState::Clock::now());
    });
  }
  for (auto& t : writers) t.join();
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(state.restartCount(), 1000);
  EXPECT_EQ(state.incrementRestartCount(), 1001);
}

TEST(MapAsset, EqualityIgnoresConfidenceAndMatrix) {
  MapAsset a("chair", Vector3(1, 2, 3), 0.5f);
  MapAsset b = a;
  b.confidence = 0.5f;
  b.matrix = "1,0,0,0";
  EXPECT_EQ(a, b);
  b.position.y += 0.0001f;
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(a == MapAsset("Chair", Vector3(1, 2, 3), 0.5f));
  EXPECT_FALSE(a == MapAsset("chair", Vector3(1, 2, 3), 0.50001f));
}

}  // namespace
}  // namespace omra
