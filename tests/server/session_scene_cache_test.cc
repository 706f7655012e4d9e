// Sessions read as their records arrive: each read takes only what is new, yet the scene is the
// one a full read gives, late and re-sent records included; matches already found are reused.
#include "server/session_scene_cache.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "server/server_tables.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/platform/store/memory_record_store.h"
#include "tests/server/server_testutil.h"

namespace omra::server {
namespace {

const Pose4 kTruth{0.4, 0.01, -0.7, 0.8};

void expectSameScene(const SessionScene& got, const SessionScene& want) {
  ASSERT_EQ(got.evidence.landmarks.size(), want.evidence.landmarks.size());
  for (size_t i = 0; i < got.evidence.landmarks.size(); ++i) {
    EXPECT_EQ(got.evidence.landmarks[i].objectId, want.evidence.landmarks[i].objectId);
    EXPECT_EQ(got.evidence.landmarks[i].position, want.evidence.landmarks[i].position);
  }
  ASSERT_EQ(got.evidence.planes.size(), want.evidence.planes.size());
  for (size_t i = 0; i < got.evidence.planes.size(); ++i) {
    EXPECT_EQ(got.evidence.planes[i].planeId, want.evidence.planes[i].planeId);
    EXPECT_EQ(got.evidence.planes[i].origin, want.evidence.planes[i].origin);
  }
  EXPECT_EQ(got.evidence.points, want.evidence.points);
  ASSERT_EQ(got.frames.size(), want.frames.size());
  for (size_t i = 0; i < got.frames.size(); ++i) {
    EXPECT_EQ(got.frames[i].frameId, want.frames[i].frameId);
    EXPECT_EQ(got.frames[i].cameraPose, want.frames[i].cameraPose);
    EXPECT_EQ(got.frames[i].features, want.frames[i].features);
  }
  EXPECT_EQ(got.stats.records, want.stats.records);
  EXPECT_EQ(got.stats.text(), want.stats.text());
}

class SessionCacheTest : public ::testing::Test {
 protected:
  SessionCacheTest() { EXPECT_FALSE(createAllTables(store_)); }
  void put(const char* table, const Item& item, int64_t recordId) {
    ASSERT_FALSE(store_.put(table, withRecordId(item, recordId)));
  }
  MemoryRecordStore store_;
};

// The session arrives in parts, some out of order, some twice; after each part the cached read
// gives what a full read gives and has read only the records that part added.
TEST_F(SessionCacheTest, ReadsOnlyWhatIsNewAndAgreesWithAFullRead) {
  const testing::SyntheticRoom room = testing::makeSyntheticRoom(51);
  const auto frames = testing::reseen(room.frames, kTruth, 0.05, 0.2, 52);
  const Item object =
      SceneUnderstandingModel("s", 900, 0.5f, 0.1f, -0.2f, "lamp", 0.9f, 4242, false).toItem();
  const Item plane = DetectedPlaneModel("s", 901, "late-wall", "vertical", "", false,
                                        "1,0,0,0,0,0,1,0,0,1,0,0,2,0,1,1", false)
                         .toItem();
  // Point 1 moves twice.
  const Item older = PointCloudModel("s", 902, {{902, {1}}}, {{1, {5.0f, 5.0f, 5.0f}}}).toItem();
  const Item moved = PointCloudModel("s", 903, {{903, {1}}}, {{1, {9.0f, 9.0f, 9.0f}}}).toItem();
  int64_t last = 0;
  // Each step writes and says how many records it added.
  struct Step {
    const char* name;
    std::function<size_t()> write;
  };
  const size_t half = frames.size() / 2;
  testing::SceneRecords first{testing::carried(room.evidence, kTruth, 0.01, 53), {}};
  first.frames.assign(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(half));
  testing::SceneRecords second;
  second.frames.assign(frames.begin() + static_cast<std::ptrdiff_t>(half), frames.end());
  auto part = [&](const testing::SceneRecords& records) {
    const int64_t before = last;
    testing::writeScene(store_, "s", records, &last);
    return static_cast<size_t>(last - before);
  };
  const Step steps[] = {
      {"first part", [&] { return part(first); }},
      {"nothing new", [] { return size_t{0}; }},
      {"the rest of the frames", [&] { return part(second); }},
      // Record last+2 arrives before last+1: the gap is read again once it is filled.
      {"a record past a gap",
       [&] {
         put(SceneUnderstandingModel::kTableName, object, last + 2);
         return size_t{1};
       }},
      {"the record of the gap",
       [&] {
         put(DetectedPlaneModel::kTableName, plane, last + 1);
         return size_t{1};
       }},
      {"a record sent again",
       [&] {
         put(SceneUnderstandingModel::kTableName, object, last + 2);
         return size_t{0};
       }},
      // The newer position arrives first; the older one, late, must not win.
      {"a point moved past a gap",
       [&] {
         put(PointCloudModel::kTableName, moved, last + 4);
         return size_t{1};
       }},
      {"its older position, late",
       [&] {
         put(PointCloudModel::kTableName, older, last + 3);
         return size_t{1};
       }},
  };
  SessionSceneCache cache;
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    const size_t added = step.write();
    std::optional<StoreError> e1, e2;
    const SessionSceneCache::View got = cache.get(store_, "s", true, &e1);
    const SessionScene want = readSessionScene(store_, "s", true, &e2);
    ASSERT_FALSE(e1);
    ASSERT_FALSE(e2);
    expectSameScene(got.scene, want);
    EXPECT_EQ(got.newRecords, added);
    // Without images: the same scene less the frames.
    const SessionSceneCache::View bare = cache.get(store_, "s", false, &e1);
    EXPECT_TRUE(bare.scene.frames.empty());
    EXPECT_EQ(bare.scene.evidence.landmarks.size(), want.evidence.landmarks.size());
    EXPECT_EQ(bare.newRecords, 0u);
  }
  EXPECT_EQ(cache.entries(), 1u);
  EXPECT_GT(cache.bytes(), frames.size() * frames[0].features.size() * sizeof(float));
}

// A cache too small for any session keeps none and still answers; runs at once on one session
// all see it whole.
TEST_F(SessionCacheTest, BoundAndConcurrentReads) {
  const testing::SyntheticRoom room = testing::makeSyntheticRoom(61);
  testing::writeScene(store_, "s", {room.evidence, room.frames});
  std::optional<StoreError> e;
  const SessionScene want = readSessionScene(store_, "s", true, &e);
  SessionSceneCache tiny(1);
  expectSameScene(tiny.get(store_, "s", true, &e).scene, want);
  EXPECT_EQ(tiny.entries(), 0u);
  EXPECT_EQ(tiny.bytes(), 0u);

  SessionSceneCache shared;
  std::vector<SessionScene> got(4);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < got.size(); ++i) {
    threads.emplace_back([&, i] {
      std::optional<StoreError> own;
      got[i] = shared.get(store_, "s", true, &own).scene;
    });
  }
  for (std::thread& t : threads) t.join();
  for (const SessionScene& s : got) expectSameScene(s, want);
}

// Frames the memo knows are not searched again: its answers are used as they are (a planted one
// shows), only for the index they were found with, and a run with the memo proposes what a run
// without it proposes.
TEST(NeighbourMemo, ReusesAnswersForTheSameIndexOnly) {
  const auto mapFrames = testing::makeFrames(300, 48, 81);
  const auto session = testing::reseen(mapFrames, kTruth, 0.05, 0.2, 82);
  const ImageFeatureIndex index(mapFrames), rebuilt(mapFrames);
  ASSERT_NE(index.serial(), rebuilt.serial());
  const ImageMatcher matcher;
  const std::vector<LocalizerReport> plain = matcher.proposals(index, session, 3);
  ASSERT_FALSE(plain.empty());
  ASSERT_TRUE(plain[0].found);

  NeighbourMemo memo;
  const std::vector<PosedFeatures> firstHalf(session.begin(), session.begin() + 150);
  matcher.proposals(index, firstHalf, 3, &memo);
  EXPECT_EQ(memo.size(), 150u);
  const std::vector<LocalizerReport> memoised = matcher.proposals(index, session, 3, &memo);
  EXPECT_EQ(memo.size(), session.size());
  ASSERT_EQ(memoised.size(), plain.size());
  for (size_t g = 0; g < plain.size(); ++g) {
    EXPECT_EQ(memoised[g].inliers, plain[g].inliers);
    EXPECT_EQ(memoised[g].transform.tx, plain[g].transform.tx);
    EXPECT_EQ(memoised[g].matchValue, plain[g].matchValue);
  }

  // Every frame planted onto map row 0: the memo's answer wins for its index, not for another.
  NeighbourMemo planted;
  for (const PosedFeatures& f : session) {
    planted.put(index.serial(), NeighbourMemo::keyOf(f), {0, 1.0f});
  }
  // All alike, the first frames vote for as many different transforms: no group.
  const auto fooled = matcher.proposals(index, session, 1, &planted);
  EXPECT_TRUE(fooled.empty() || !fooled[0].found);
  const auto other = matcher.proposals(rebuilt, session, 1, &planted);
  ASSERT_FALSE(other.empty());
  EXPECT_EQ(other[0].inliers, plain[0].inliers);
  EXPECT_EQ(other[0].matchValue, plain[0].matchValue);
  EXPECT_EQ(planted.size(), session.size());  // the planted answers went with the old index
  EXPECT_FALSE(planted.find(index.serial(), NeighbourMemo::keyOf(session[0])));
}

}  // namespace
}  // namespace omra::server
