#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "server/localizers/image_matcher.h"
#include "server/localizers/pose4.h"
#include "server/localizers/su_localizer.h"
#include "tests/server/server_testutil.h"

namespace omra::server {
namespace {

using testing::makeFrames;
using testing::makeRoom;
using testing::reseen;
using testing::seenFrom;

constexpr double kDeg = std::numbers::pi / 180;

void expectPoseNear(const Pose4& got, const Pose4& want, double metres, double radians) {
  EXPECT_NEAR(got.tx, want.tx, metres);
  EXPECT_NEAR(got.ty, want.ty, metres);
  EXPECT_NEAR(got.tz, want.tz, metres);
  EXPECT_NEAR(wrapAngle(got.theta - want.theta), 0, radians);
}

TEST(Pose4, AppliesTheKitsRuleAndRoundTripsItsText) {
  // The transform the kit applies to stored placements.
  EXPECT_EQ((Pose4{1, 0, 2, 0}.apply({1, 1, 1})), (Vec3{2, 1, 3}));
  const Vec3 turned = Pose4{0, 0, 0, std::numbers::pi / 2}.apply({1, 0, 0});
  EXPECT_NEAR(turned[0], 0, 1e-12);
  EXPECT_NEAR(turned[2], -1, 1e-12);

  const Pose4 p{1.25, -0.5, 3.125, -2.5};
  auto back = Pose4::parse(p.toText());
  ASSERT_TRUE(back);
  expectPoseNear(*back, p, 1e-6, 1e-6);
  for (const char* bad : {"", "1,2,3", "1,2,3,4,5", "a,b,c,d", "1,,2,3", "1,2,3,nan", "1,2,3,4,"}) {
    EXPECT_FALSE(Pose4::parse(bad)) << bad;
  }
}

TEST(Pose4, ReducesARigidTransformToTranslationAndYaw) {
  const Pose4 want{0.3, -0.2, 1.1, 2.8};
  const Mat4 camera = testing::cameraPose({1, 1.5, -2}, 0.4, 0.3);
  // T = (want * C) * C^-1 must give want back, whatever the camera's pitch.
  const Mat4 t = multiply(multiply(testing::toMat4(want), camera), rigidInverse(camera));
  expectPoseNear(reduceToPose4(t), want, 1e-9, 1e-9);
}

TEST(BuildLandmarks, TakesMedianPositionAndMostFrequentLabel) {
  std::vector<ObjectObservation> obs = {
      {7, "cup", {1, 0, 0}},  {7, "cup", {2, 10, 0}}, {7, "bowl", {100, 1, 0}},
      {3, "vase", {0, 0, 5}}, {3, "bowl", {0, 0, 6}},  // tie: the smaller text wins
  };
  auto lm = buildLandmarks(obs);
  ASSERT_EQ(lm.size(), 2u);
  EXPECT_EQ(lm[0].objectId, 3);
  EXPECT_EQ(lm[0].label, "bowl");
  EXPECT_EQ(lm[0].position, (Vec3{0, 0, 5.5}));  // even count: mean of the middle two
  EXPECT_EQ(lm[1].label, "cup");
  EXPECT_EQ(lm[1].position, (Vec3{2, 1, 0}));  // the outlier at x = 100 does not move the median
}

// Recovery across the kinds of scenes the localizer meets. Tolerances: exact data 1 mm and 0.05
// degrees; with 2 cm noise 4 cm and 1.5 degrees.
TEST(SuLocalizer, RecoversKnownTransforms) {
  struct Case {
    const char* name;
    int landmarks, labels;
    double noise, outlierShare;
    double metres, radians;
  };
  const Case cases[] = {
      {"exact", 12, 12, 0, 0, 1e-3, 0.05 * kDeg},
      {"2 cm noise", 15, 12, 0.02, 0, 0.04, 1.5 * kDeg},
      {"30% outliers", 20, 12, 0.01, 0.3, 0.04, 1.5 * kDeg},
      {"repeated labels", 24, 3, 0, 0, 1e-3, 0.05 * kDeg},
      {"one label only", 10, 1, 0.01, 0, 0.04, 1.5 * kDeg},
  };
  const Pose4 truth{1.2, 0.1, -0.7, 2.3};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto map = makeRoom(c.landmarks, c.labels, 11);
    auto session = seenFrom(map, truth, c.noise, 12);
    // Outliers: that share of the session's landmarks moved somewhere else in the room.
    const auto outliers = static_cast<size_t>(c.outlierShare * static_cast<double>(session.size()));
    const auto elsewhere = makeRoom(static_cast<int>(outliers), c.labels, 13);
    for (size_t k = 0; k < outliers; ++k) session[k].position = elsewhere[k].position;

    const LocalizerReport r = SuLocalizer().estimate(map, session);
    ASSERT_TRUE(r.found);
    expectPoseNear(r.transform, truth, c.metres, c.radians);
    EXPECT_EQ(r.inliers, c.landmarks - static_cast<int>(outliers));
    EXPECT_DOUBLE_EQ(r.matchValue, static_cast<double>(r.inliers) / c.landmarks);
    EXPECT_LE(r.residual, c.noise * 3 + 1e-6);
  }
}

TEST(SuLocalizer, NeedsThreeAgreeingLandmarks) {
  const Pose4 truth{0.5, 0, 0.5, 1};
  const auto map = makeRoom(6, 12, 21);
  const std::vector<Landmark> two(map.begin(), map.begin() + 2);
  EXPECT_FALSE(SuLocalizer().estimate(two, seenFrom(two, truth, 0, 1)).found);
  // Plenty of landmarks, but only two of them in the same place in both sessions.
  auto session = seenFrom(map, truth, 0, 1);
  for (size_t k = 2; k < session.size(); ++k) session[k].position[0] += 2 + static_cast<double>(k);
  const LocalizerReport r = SuLocalizer().estimate(map, session);
  EXPECT_FALSE(r.found);
  EXPECT_LE(r.inliers, 2);
  // Nothing in common at all.
  EXPECT_FALSE(SuLocalizer().estimate(map, {}).found);
}

TEST(SuLocalizer, SymmetricLayouts) {
  // Four chairs on a square: each quarter turn fits all four, so any of them is a right answer,
  // and the same input must always give the same one.
  std::vector<Landmark> square = {{1, "chair", {1, 0, 1}},
                                  {2, "chair", {1, 0, -1}},
                                  {3, "chair", {-1, 0, -1}},
                                  {4, "chair", {-1, 0, 1}}};
  const Pose4 truth{2, 0, 3, 0.6};
  const auto session = seenFrom(square, truth, 0, 1);
  const LocalizerReport a = SuLocalizer().estimate(square, session);
  const LocalizerReport b = SuLocalizer().estimate(square, session);
  ASSERT_TRUE(a.found);
  EXPECT_EQ(a.inliers, 4);
  EXPECT_EQ(a.transform.toText(), b.transform.toText());
  double turns = wrapAngle(a.transform.theta - truth.theta) / (std::numbers::pi / 2);
  EXPECT_NEAR(turns, std::round(turns), 1e-6);
  for (const Landmark& l : square) {
    const Vec3 p = a.transform.apply(l.position);
    double nearest = 1e9;
    for (const Landmark& s : session) nearest = std::min(nearest, distance(p, s.position));
    EXPECT_LT(nearest, 1e-6);
  }
  // A table at one corner breaks the symmetry: only the true transform fits all four.
  square[0].label = "table";
  const LocalizerReport c = SuLocalizer().estimate(square, seenFrom(square, truth, 0, 1));
  ASSERT_TRUE(c.found);
  expectPoseNear(c.transform, truth, 1e-6, 1e-6);
}

TEST(SuLocalizer, SeededRunsKeepToTheSeedAndAcceptTwoInliers) {
  const Pose4 truth{0.4, 0, -1.5, -0.8};
  std::vector<Landmark> map = {{1, "tv", {0, 1, 0}}, {2, "couch", {2, 0.5, 0.5}}};
  const auto session = seenFrom(map, truth, 0, 1);
  EXPECT_FALSE(SuLocalizer().estimate(map, session).found);  // two are too few unseeded
  const LocalizerReport near = SuLocalizer().estimate(map, session, Pose4{0.6, 0, -1.3, -0.7});
  ASSERT_TRUE(near.found);
  expectPoseNear(near.transform, truth, 1e-6, 1e-6);
  // A seed 5 m off leaves no candidate pair within 1 m.
  const LocalizerReport far = SuLocalizer().estimate(map, session, Pose4{5.4, 0, -1.5, -0.8});
  EXPECT_FALSE(far.found);
  EXPECT_EQ(far.hypotheses, 0);
}

TEST(SuLocalizer, SampledRunsAreDeterministicPerSeed) {
  const Pose4 truth{-1, 0.2, 0.3, 0.2};
  const auto map = makeRoom(120, 12, 31);
  const auto session = seenFrom(map, truth, 0.01, 32);
  SuLocalizerOptions o;
  o.maxHypotheses = 200;  // far fewer than the scene offers: sampling decides
  const LocalizerReport a = SuLocalizer(o).estimate(map, session);
  const LocalizerReport b = SuLocalizer(o).estimate(map, session);
  EXPECT_EQ(a.transform.toText(), b.transform.toText());
  EXPECT_LE(a.hypotheses, 200);
  EXPECT_EQ(a.hypotheses, b.hypotheses);
  o.randomSeed = 99;
  for (const LocalizerReport& r : {a, SuLocalizer(o).estimate(map, session)}) {
    ASSERT_TRUE(r.found);
    expectPoseNear(r.transform, truth, 0.04, 1.5 * kDeg);
  }
}

// Among several rooms of alike furniture the most inliers may sit in the wrong one: the runner-up
// hypotheses, each placing the landmarks elsewhere, keep the right answer within reach.
TEST(SuLocalizer, SeveralHypothesesKeepTheRunnersUp) {
  const Pose4 truth{0.8, 0, -0.4, 0.9};
  const auto room = makeRoom(8, 12, 41);
  struct Case {
    const char* name;
    bool decoy;          // the map also holds a copy of the room 10 m away...
    bool decoyHasExtra;  // ... which also has the object the session saw beyond the room
    bool truthFirst;
  };
  const Case cases[] = {{"one room", false, false, true},
                        {"two alike rooms", true, false, true},
                        {"the other room fits one object more", true, true, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Landmark> map = room;
    const Landmark extra{100, "plant", {2.5, 0.5, 2.5}};
    if (c.decoy) {
      for (Landmark l : room) {
        l.objectId += 50;
        l.position[0] += 10;
        map.push_back(l);
      }
      if (c.decoyHasExtra) map.push_back({150, "plant", {12.5, 0.5, 2.5}});
    }
    std::vector<Landmark> seen = room;
    seen.push_back(extra);
    const auto session = seenFrom(seen, truth, 0.005, 42);
    const SuLocalizer su;
    const auto several = su.estimateSeveral(map, session, std::nullopt, 3);
    ASSERT_FALSE(several.empty());
    EXPECT_LE(several.size(), 3u);
    // The first is estimate()'s answer; the rest rank below it.
    EXPECT_EQ(several.front().transform.toText(), su.estimate(map, session).transform.toText());
    for (size_t k = 1; k < several.size(); ++k) {
      EXPECT_LE(several[k].inliers, several[k - 1].inliers);
      // Each places the room's landmarks elsewhere than every better one.
      for (size_t b = 0; b < k; ++b) {
        double apart =
            std::fabs(wrapAngle(several[k].transform.theta - several[b].transform.theta));
        for (const Landmark& l : room) {
          apart = std::max(apart, distance(several[k].transform.apply(l.position),
                                           several[b].transform.apply(l.position)));
        }
        EXPECT_GT(apart, 0.17);
      }
    }
    auto isTruth = [&](const LocalizerReport& r) {
      return r.found &&
             distance(r.transform.apply(room[0].position), truth.apply(room[0].position)) < 0.02 &&
             std::fabs(wrapAngle(r.transform.theta - truth.theta)) < 0.5 * kDeg;
    };
    EXPECT_EQ(isTruth(several.front()), c.truthFirst);
    EXPECT_TRUE(std::any_of(several.begin(), several.end(), isTruth));
  }
}

// Image matcher tolerances: exact features 1 mm and 0.05 degrees (the transform is the mean of
// exact ones); with feature noise the matches stay right, so the same.
TEST(ImageMatcher, RecoversKnownTransforms) {
  struct Case {
    const char* name;
    double featureNoise, wrongShare;
  };
  const Case cases[] = {{"exact", 0, 0}, {"noisy features", 0.05, 0}, {"30% wrong", 0.02, 0.3}};
  const Pose4 truth{0.7, 0.05, -2.1, -1.9};
  const auto map = makeFrames(80, 64, 41);
  const ImageFeatureIndex index(map);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto session = reseen(map, truth, c.featureNoise, c.wrongShare, 42);
    const LocalizerReport r = ImageMatcher().estimate(index, session);
    ASSERT_TRUE(r.found);
    expectPoseNear(r.transform, truth, 1e-3, 0.05 * kDeg);
    EXPECT_EQ(r.inliers, 20);
    EXPECT_GT(r.matchValue, 0.9);
    EXPECT_LE(r.matchValue, 1.0 + 1e-6);
  }
}

TEST(ImageMatcher, MatchValueAndTooFewAgreeingFrames) {
  const Pose4 truth{1, 0, 1, 0.5};
  const auto map = makeFrames(30, 16, 51);
  const ImageFeatureIndex index(map);
  // Five exact re-sightings: a group of five of the twenty votes at similarity 1.
  auto session = reseen(map, truth, 0, 0, 52);
  session.resize(5);
  LocalizerReport r = ImageMatcher().estimate(index, session);
  ASSERT_TRUE(r.found);
  EXPECT_NEAR(r.matchValue, 5.0 / 20.0, 1e-5);
  // Two agreeing frames are not enough; a frame of another dimension is ignored.
  session.resize(2);
  PosedFeatures odd = session[0];
  odd.features.resize(8);
  session.push_back(odd);
  r = ImageMatcher().estimate(index, session);
  EXPECT_FALSE(r.found);
  EXPECT_EQ(r.inliers, 2);
  EXPECT_FALSE(ImageMatcher().estimate(ImageFeatureIndex({}), session).found);
}

TEST(ImageMatcher, IndexFindsTheMostSimilarFrame) {
  const auto map = makeFrames(37, 10, 61);  // a dimension that is not a multiple of four
  const ImageFeatureIndex index(map);
  ASSERT_EQ(index.size(), 37u);
  std::vector<float> unit(index.stride());
  for (int want : {0, 17, 36}) {
    std::vector<float> v = map[static_cast<size_t>(want)].features;
    for (float& x : v) x *= 3;  // scale does not change cosine similarity
    ASSERT_TRUE(index.normalise(v, unit.data()));
    auto [got, similarity] = index.best(unit.data());
    EXPECT_EQ(got, want);
    EXPECT_NEAR(similarity, 1, 1e-5);
  }
  EXPECT_FALSE(index.normalise(std::vector<float>(10, 0.0f), unit.data()));
  EXPECT_FALSE(index.normalise(std::vector<float>(11, 1.0f), unit.data()));
}

}  // namespace
}  // namespace omra::server
