#include "sim/recording_feeder.h"

#include <gtest/gtest.h>

#include <chrono>

#include "sim/frame_image.h"
#include "tests/sim/sim_testutil.h"

namespace omra::sim {
namespace {

// Everything arrives in the recording's order: plane events between the frames they precede,
// frames carrying their own index in the image tag.
TEST(FeedRecording, DeliversEveryEventInOrder) {
  const Scenario& s = testing::shortScenario();
  RecordingPlayer player(s.mapping);
  std::vector<int64_t> order;  // frame index, or -1 for a plane event
  FeedOptions options;
  options.speed = 0;
  size_t lastProgress = 0;
  options.progress = [&](size_t done, size_t total) {
    EXPECT_EQ(done, lastProgress + 1);
    EXPECT_EQ(total, s.mapping->frameCount());
    lastProgress = done;
  };
  FeedResult r = feedRecording(
      player,
      {[&](const ArFrame& f) { order.push_back(readFrameTag(f.capturedImage).value_or(-2)); },
       [&](PlaneEventKind, const ArPlaneAnchor& a) {
         EXPECT_FALSE(a.identifier.empty());
         order.push_back(-1);
       }},
      options);
  ASSERT_EQ(order.size(), s.mapping->events.size());
  for (size_t i = 0; i < order.size(); ++i) {
    if (const auto* f = std::get_if<RecordedFrame>(&s.mapping->events[i])) {
      EXPECT_EQ(order[i], f->index);
    } else {
      EXPECT_EQ(order[i], -1);
    }
  }
  EXPECT_EQ(r.frames, s.mapping->frameCount());
  EXPECT_EQ(r.frames + r.planeEvents, order.size());
  EXPECT_FALSE(r.stopped);
}

// Paced like the session (here 20x faster), and a stop request ends the feed at once.
TEST(FeedRecording, PacesAndStops) {
  const Scenario& s = testing::shortScenario();
  RecordingPlayer player(s.localization);
  FeedOptions options;
  options.speed = 20;  // 3 s of frames in about 0.15 s
  auto start = std::chrono::steady_clock::now();
  FeedResult all = feedRecording(player, {}, options);
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  double span = 3.0 - 1.0 / 60;
  EXPECT_GE(elapsed, span / 20 - 0.005);
  EXPECT_EQ(all.frames, 180u);

  size_t frames = 0;
  options.speed = 0;
  options.stop = [&] { return frames >= 10; };
  FeedResult cut = feedRecording(player, {[&](const ArFrame&) { ++frames; }, nullptr}, options);
  EXPECT_TRUE(cut.stopped);
  EXPECT_EQ(cut.frames, 10u);
}

}  // namespace
}  // namespace omra::sim
