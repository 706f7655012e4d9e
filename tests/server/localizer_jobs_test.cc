// The localizer jobs as the server runs them: records in a store, proposals checked against both
// sessions' geometry, results written only when verified; the map index kept between runs.
#include "server/localizer_jobs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <numbers>
#include <optional>
#include <thread>
#include <utility>

#include "server/localizers/joint_refiner.h"
#include "server/localizers/map_index_cache.h"
#include "server/localizers/object_footprint.h"
#include "server/server_tables.h"
#include "server/session_records.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/platform/store/memory_record_store.h"
#include "tests/server/server_testutil.h"

namespace omra::server {
namespace {

using testing::SceneRecords;
using testing::SyntheticRoom;

constexpr double kDeg = std::numbers::pi / 180;
const Pose4 kTruth{0.9, 0.03, -1.3, 2.2};

double translationError(const Pose4& a, const Pose4& b) {
  return std::hypot(a.tx - b.tx, a.ty - b.ty, a.tz - b.tz);
}

// Planes as a session of the simulator sees them by default: each anchor slid 1 m, off by 1 cm
// along its normal and turned by half a degree.
std::vector<PlaneObservation> withDefaultPlaneErrors(std::vector<PlaneObservation> planes,
                                                     uint64_t seed) {
  return testing::withPlaneErrors(std::move(planes), 1, 0.01, 0.5 * kDeg, seed);
}

// A room of `objects` objects with a table top and no feature points (the floor's edges along
// floorAxis when given), and the map's picture of it.
struct TableRoom {
  SyntheticRoom room;
  SceneEvidence map;
};
TableRoom tableRoom(uint64_t seed, int objects, const PlaneObservation& table,
                    std::optional<Vec3> floorAxis, uint64_t mapSeed) {
  TableRoom out{testing::makeSyntheticRoom(seed, objects), {}};
  out.room.evidence.points.clear();
  if (floorAxis) {
    for (PlaneObservation& p : out.room.evidence.planes) {
      if (!p.vertical) p.axis = *floorAxis;
    }
  }
  out.room.evidence.planes.push_back(table);
  out.map = out.room.evidence;
  out.map.planes = withDefaultPlaneErrors(out.map.planes, mapSeed);
  return out;
}

// One store with the server's tables, a map written under "map" and sessions under any name.
class JobsTest : public ::testing::Test {
 protected:
  // Sessions cached between runs, as the server has them.
  JobsTest() : maps_(store_) {
    EXPECT_FALSE(createAllTables(store_));
    options_.sessions = std::make_shared<SessionSceneCache>();
  }

  void write(const std::string& id, const SceneRecords& scene) {
    testing::writeScene(store_, id, scene);
  }
  // The session of `room` seen from kTruth, image features alike to the map's frames.
  SceneRecords sessionOf(const SyntheticRoom& room, const SyntheticRoom& mapRoom, bool points,
                         uint64_t seed) {
    SceneRecords s;
    s.evidence = testing::carried(room.evidence, kTruth, 0.01, seed);
    if (!points) s.evidence.points.clear();
    s.frames = testing::reseen(mapRoom.frames, kTruth, 0.05, 0.2, seed + 1);
    return s;
  }
  JobOutcome run(const std::string& localizer, const std::string& session,
                 const std::string& map = "map") {
    return runLocalizer(maps_, localizer, map, session, options_);
  }
  std::optional<Pose4> written(const std::string& session, const std::string& localizer,
                               double* matchValue = nullptr) {
    std::optional<StoreError> e;
    auto best = maps_.bestTransform(session, localizer, &e);
    if (!best || !best->transform) return std::nullopt;
    if (matchValue) *matchValue = std::stod(*best->matchValue);
    return Pose4::parse(*best->transform);
  }

  MemoryRecordStore store_;
  MapStore maps_;
  LocalizerOptions options_;
};

// The image matcher finds views alike in another room just as in the right one; only the right
// room may get a result, from any localizer, with or without feature points.
TEST_F(JobsTest, WritesOnlyWhereBothSessionsGeometryAgrees) {
  struct Case {
    uint64_t mapSeed, sessionSeed;
    bool points;
  };
  const Case cases[] = {{1, 1, false},   {1, 2, false},  {3, 4, false}, {5, 6, false},
                        {7, 8, false},   {2, 2, true},   {2, 9, true},  {4, 11, true},
                        {12, 13, false}, {14, 15, false}};
  int sessionNumber = 0;
  for (const Case& c : cases) {
    const bool sameRoom = c.mapSeed == c.sessionSeed;
    SCOPED_TRACE(::testing::Message() << "map room " << c.mapSeed << ", session room "
                                      << c.sessionSeed << (c.points ? ", points" : ""));
    options_.cache = std::make_shared<MapIndexCache>();
    const SyntheticRoom mapRoom = testing::makeSyntheticRoom(c.mapSeed);
    SceneRecords map{mapRoom.evidence, mapRoom.frames};
    if (!c.points) map.evidence.points.clear();
    const std::string mapId = "map-" + std::to_string(++sessionNumber);
    write(mapId, map);
    const std::string session = "session-" + std::to_string(sessionNumber);
    write(session, sessionOf(testing::makeSyntheticRoom(c.sessionSeed), mapRoom, c.points,
                             100 + c.sessionSeed));

    const JobOutcome image = run(kImageMatcher, session, mapId);
    ASSERT_FALSE(image.error) << image.error->message;
    // The views alone agree in both rooms: only the check tells them apart.
    EXPECT_TRUE(image.report.found) << image.summary;
    EXPECT_LT(translationError(image.report.transform, kTruth), 0.01);
    const JobOutcome su = run(kSuLocalizer, session, mapId);
    const JobOutcome seeded = run(kSuLocalizerSeeded, session, mapId);
    for (const char* localizer : {kImageMatcher, kSuLocalizer, kSuLocalizerSeeded}) {
      SCOPED_TRACE(localizer);
      double value = 0;
      const std::optional<Pose4> got = written(session, localizer, &value);
      if (!sameRoom) {
        EXPECT_FALSE(got) << image.summary << "\n" << su.summary << "\n" << seeded.summary;
        continue;
      }
      ASSERT_TRUE(got) << image.summary << "\n" << su.summary << "\n" << seeded.summary;
      EXPECT_LT(translationError(*got, kTruth), 0.02);
      EXPECT_LT(std::fabs(wrapAngle(got->theta - kTruth.theta)), 0.3 * kDeg);
      // The kit takes scene-understanding answers from 0.55 on.
      EXPECT_GT(value, 0.55);
    }
    EXPECT_EQ(image.wrote, sameRoom) << image.summary;
  }
}

// Nothing usable, or one side empty: no result and no crash.
TEST_F(JobsTest, SessionsWithNothingUsableEndWithoutResult) {
  const SyntheticRoom room = testing::makeSyntheticRoom(21);
  write("map", {room.evidence, room.frames});
  // Only records that contradict themselves.
  Item object = SceneUnderstandingModel("empty", 1, 1, 0, 0, "cup", 0.9f, 4, true).toItem();
  object.erase("ObjectName");
  ASSERT_FALSE(store_.put(SceneUnderstandingModel::kTableName, withRecordId(object, 1)));
  store_.put(
      ImageFeaturesModel::kTableName,
      withRecordId(ImageFeaturesModel("empty", 7, std::vector<double>(64, 0.5)).toItem(), 2));
  for (const char* localizer : {kImageMatcher, kSuLocalizer}) {
    SCOPED_TRACE(localizer);
    for (const char* session : {"empty", "never-written"}) {
      const JobOutcome out = run(localizer, session);
      EXPECT_FALSE(out.error);
      EXPECT_FALSE(out.wrote) << out.summary;
      EXPECT_FALSE(written(session, localizer));
    }
  }
  // An empty map behaves the same.
  const JobOutcome out = runLocalizer(maps_, kImageMatcher, "no-such-map", "empty", options_);
  EXPECT_FALSE(out.wrote);
}

// Records that contradict themselves are left out and counted in the run's log line; the rest
// still gives the right answer.
TEST_F(JobsTest, ContradictingRecordsAreSkippedAndCounted) {
  const SyntheticRoom room = testing::makeSyntheticRoom(31);
  write("map", {room.evidence, room.frames});
  write("s", sessionOf(room, room, true, 5));
  int64_t recordId = 1000;
  auto put = [&](const char* table, const Item& item) {
    ASSERT_FALSE(store_.put(table, withRecordId(item, ++recordId)));
  };
  // An object without position, a frame without pose, a plane without normal, a point that is
  // not a number.
  Item object = SceneUnderstandingModel("s", 3, 1, 2, 0, "cup", 0.9f, 77, true).toItem();
  object.erase("PositionY");
  put(SceneUnderstandingModel::kTableName, object);
  put(ImageFeaturesModel::kTableName,
      ImageFeaturesModel("s", -50, std::vector<double>(64, 0.25)).toItem());
  put(DetectedPlaneModel::kTableName, DetectedPlaneModel("s", 5, "flat", "vertical", "", true,
                                                         "1,0,0,0,0,0,0,0,0,0,1,0,0.5,1,2,1", false)
                                          .toItem());
  put(PointCloudModel::kTableName,
      PointCloudModel("s", 180, {{180, {1}}}, {{1, {std::nanf(""), 0, 0}}}).toItem());
  const JobOutcome out = run(kImageMatcher, "s");
  EXPECT_NE(out.summary.find("skipped 4 contradicting record(s)"), std::string::npos)
      << out.summary;
  for (const char* what : {"1 object", "1 frame", "1 plane", "1 point"}) {
    EXPECT_NE(out.summary.find(what), std::string::npos) << what << ": " << out.summary;
  }
  ASSERT_TRUE(out.wrote) << out.summary;
  EXPECT_LT(translationError(*written("s", kImageMatcher), kTruth), 0.02);
}

// The map is read once and reused, also by runs that ask at once; a new map record makes the next
// run read it again; a cache too small for any map keeps none.
TEST_F(JobsTest, MapIndexIsBuiltOnceAndRebuiltWhenTheMapGrows) {
  const SyntheticRoom room = testing::makeSyntheticRoom(41);
  write("map", {room.evidence, room.frames});
  write("s", sessionOf(room, room, false, 7));
  options_.cache = std::make_shared<MapIndexCache>();
  struct Step {
    const char* name;
    bool addMapRecord;
    bool expectBuilt;
  };
  const Step steps[] = {{"first run", false, true},
                        {"second run", false, false},
                        {"after a new map record", true, true},
                        {"again", false, false}};
  size_t landmarks = room.evidence.landmarks.size();
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    if (step.addMapRecord) {
      ++landmarks;
      ASSERT_FALSE(store_.put(SceneUnderstandingModel::kTableName,
                              withRecordId(SceneUnderstandingModel("map", 999, 0.1f, 0.2f, 0.3f,
                                                                   "vase", 0.9f, 4242, false)
                                               .toItem(),
                                           50'000)));
    }
    bool built = false;
    std::optional<StoreError> e;
    auto index = options_.cache->get(store_, "map", &e, &built);
    ASSERT_TRUE(index);
    EXPECT_EQ(built, step.expectBuilt);
    EXPECT_EQ(index->evidence().landmarks.size(), landmarks);
    const JobOutcome out = run(kSuLocalizer, "s");
    EXPECT_NE(out.summary.find("map index reused"), std::string::npos) << out.summary;
    EXPECT_TRUE(out.wrote) << out.summary;
  }
  EXPECT_EQ(options_.cache->entries(), 1u);
  // Runs that ask at once for a map not yet built wait for one build.
  MapIndexCache fresh;
  std::atomic<int> builds{0};
  std::vector<std::thread> runs;
  for (int i = 0; i < 4; ++i) {
    runs.emplace_back([&] {
      bool b = false;
      std::optional<StoreError> own;
      EXPECT_TRUE(fresh.get(store_, "map", &own, &b));
      builds += b;
    });
  }
  for (std::thread& t : runs) t.join();
  EXPECT_EQ(builds.load(), 1);
  MapIndexCache tiny(1);
  bool built = false;
  std::optional<StoreError> e;
  EXPECT_TRUE(tiny.get(store_, "map", &e, &built));
  EXPECT_TRUE(built);
  EXPECT_EQ(tiny.entries(), 0u);
  EXPECT_EQ(tiny.bytes(), 0u);
}

// A refiner that holds one-direction results to the general error limit: for cases about
// something other than that limit.
JointRefiner refinerWithoutOneWayLimit() {
  JointRefinerOptions o;
  o.maxPredictedErrorOneWay = o.maxPredictedError;
  return JointRefiner(o);
}

// The match value falls as the evidence gets noisier or scarcer, and the predicted error is of
// the size of the real one.
TEST(JointRefiner, MatchValuePredictsTheError) {
  struct Case {
    const char* name;
    double noise;
    int landmarks;
    bool planes;
  };
  const Case cases[] = {{"dense, planes", 0.005, 20, true},
                        {"dense, noisy", 0.03, 20, true},
                        {"few objects, planes", 0.01, 4, true},
                        {"few objects, no planes", 0.03, 4, false}};
  double lastValue = 2;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SyntheticRoom room = testing::makeSyntheticRoom(51, c.landmarks);
    room.evidence.points.clear();
    if (!c.planes) room.evidence.planes.clear();
    const SceneEvidence session = testing::carried(room.evidence, kTruth, c.noise, 52);
    const Pose4 rough{kTruth.tx + 0.15, kTruth.ty, kTruth.tz - 0.1, kTruth.theta + 3 * kDeg};
    const JointResult r =
        refinerWithoutOneWayLimit().refine(rough, room.evidence, PointGrid(), session);
    ASSERT_TRUE(r.verified) << r.why;
    EXPECT_LT(r.matchValue, lastValue);
    lastValue = r.matchValue;
    // The error of an asset two metres out.
    const double actual = std::hypot(translationError(r.transform, kTruth),
                                     2 * wrapAngle(r.transform.theta - kTruth.theta));
    EXPECT_LT(actual, 3 * r.predictedError + 0.002);
    EXPECT_GT(4 * actual + 0.01, r.predictedError);
  }
}

// In a long map the session's room lies metres from the map's origin: that changes neither the
// answer nor how fine it is said to be.
TEST(JointRefiner, WhereTheRoomLiesInTheMapChangesNothing) {
  SyntheticRoom room = testing::makeSyntheticRoom(55, 12);
  room.evidence.points.clear();
  const SceneEvidence session = testing::carried(room.evidence, kTruth, 0.02, 56);
  std::optional<double> nearError;
  for (const double far : {0.0, 25.0}) {
    SCOPED_TRACE(far);
    // The map's frame shifted by (far, 0, -far): the truth takes the shift back first.
    const Vec3 d{far, 0, -far};
    SceneEvidence map = room.evidence;
    for (Landmark& l : map.landmarks)
      l.position = {l.position[0] + d[0], l.position[1], l.position[2] + d[2]};
    for (PlaneObservation& p : map.planes)
      p.origin = {p.origin[0] + d[0], p.origin[1], p.origin[2] + d[2]};
    const Vec3 turned = Pose4{0, 0, 0, kTruth.theta}.apply(d);
    const Pose4 truth{kTruth.tx - turned[0], kTruth.ty, kTruth.tz - turned[2], kTruth.theta};
    // A proposal a little off where the room is, as the room's own evidence gives them.
    Vec3 centre{0, 0, 0};
    for (const Landmark& l : map.landmarks) {
      for (size_t k = 0; k < 3; ++k) centre[k] += l.position[k] / map.landmarks.size();
    }
    const Vec3 at = truth.apply(centre);
    const Vec3 turnedCentre = Pose4{0, 0, 0, truth.theta + 2 * kDeg}.apply(centre);
    const Pose4 rough{at[0] - turnedCentre[0] + 0.1, truth.ty, at[2] - turnedCentre[2] - 0.1,
                      truth.theta + 2 * kDeg};
    const JointResult r = JointRefiner().refine(rough, map, PointGrid(), session);
    ASSERT_TRUE(r.verified) << r.why;
    // An asset in the room: where the two frames carry one of the map's objects.
    const Vec3 object = map.landmarks.front().position;
    const Vec3 a = r.transform.apply(object), b = truth.apply(object);
    EXPECT_LT(std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]), 0.03);
    if (nearError) {
      EXPECT_NEAR(r.predictedError, *nearError, 0.1 * *nearError);
    }
    nearError = r.predictedError;
  }
}

// The error is judged where the map's assets stand: one in a far corner of the room moves most
// with the heading's doubt and raises it; one amid the objects leaves the general reading, and
// one in a part of the map the session never saw does not count. The answer itself stays.
TEST(JointRefiner, TheErrorIsReadWhereTheAssetsStand) {
  SyntheticRoom room = testing::makeSyntheticRoom(57, 8);
  room.evidence.points.clear();
  room.evidence.planes = withDefaultPlaneErrors(room.evidence.planes, 58);
  const SceneEvidence session = testing::carried(room.evidence, kTruth, 0.02, 59);
  const Pose4 rough{kTruth.tx + 0.1, kTruth.ty, kTruth.tz - 0.1, kTruth.theta + 2 * kDeg};
  const JointResult general = JointRefiner().refine(rough, room.evidence, PointGrid(), session);
  ASSERT_TRUE(general.verified) << general.why;
  const Vec3 corner{room.width / 2 - 0.2, 1.0, room.depth / 2 - 0.2};
  struct Case {
    const char* name;
    std::vector<Vec3> assets;
    bool raises;
  };
  const Case cases[] = {{"amid the objects", {{0, 0.8, 0}}, false},
                        {"in a far corner", {{0, 0.8, 0}, corner}, true},
                        {"where the session never was", {{40, 0.8, -40}}, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const JointResult r =
        JointRefiner().refine(rough, room.evidence, PointGrid(), session, c.assets);
    EXPECT_EQ(r.transform.toText(), general.transform.toText());
    if (c.raises) {
      EXPECT_GT(r.predictedError, 1.2 * general.predictedError);
      EXPECT_LT(r.matchValue, general.matchValue);
    } else {
      EXPECT_DOUBLE_EQ(r.predictedError, general.predictedError);
    }
  }
}

// A few objects that happen to fit each other well say little about how far off objects are.
// At equal noise, three objects never predict a smaller error than two dozen; three that are off
// together (seen from elsewhere) along the one wall, fitting each other exactly, still predict an
// error of the size of the real one, and so do two dozen: what they share, no number of them
// averages away.
TEST(JointRefiner, FewObjectsDoNotLookFinerThanMany) {
  struct Case {
    const char* name;
    int objects;
    double noise, sharedShift;
  };
  const Case cases[] = {{"3, 1 cm", 3, 0.01, 0},
                        {"24, 1 cm", 24, 0.01, 0},
                        {"3, 4 cm", 3, 0.04, 0},
                        {"24, 4 cm", 24, 0.04, 0},
                        {"3 off together", 3, 0.002, 0.06},
                        {"24 off together", 24, 0.002, 0.04}};
  std::map<double, std::vector<double>> predictedByNoise;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // One wall and the floor, seen well; objects off by noise.
    SyntheticRoom room = testing::makeSyntheticRoom(71, c.objects);
    room.evidence.points.clear();
    bool wall = false;
    std::erase_if(room.evidence.planes, [&](const PlaneObservation& p) {
      return p.vertical && std::exchange(wall, true);
    });
    SceneEvidence session = testing::carried(room.evidence, kTruth, 0.003, 72);
    session.landmarks = testing::seenFrom(room.evidence.landmarks, kTruth, c.noise, 73);
    // Along the wall (the direction nothing else fixes), in the session's frame.
    const PlaneObservation& w = *std::find_if(session.planes.begin(), session.planes.end(),
                                              [](const PlaneObservation& p) { return p.vertical; });
    for (Landmark& l : session.landmarks) {
      l.position[0] += c.sharedShift * w.normal[2];
      l.position[2] -= c.sharedShift * w.normal[0];
    }
    const Pose4 rough{kTruth.tx - 0.1, kTruth.ty, kTruth.tz + 0.1, kTruth.theta + 2 * kDeg};
    const JointResult r = JointRefiner().refine(rough, room.evidence, PointGrid(), session);
    predictedByNoise[c.noise].push_back(r.predictedError);
    const double actual = std::hypot(translationError(r.transform, kTruth),
                                     2 * wrapAngle(r.transform.theta - kTruth.theta));
    EXPECT_LT(actual, 3 * r.predictedError + 0.002);
    EXPECT_GT(r.predictedError, (c.sharedShift > 0 ? 0.5 : 0.25) * actual - 0.0025);
    // The objects' own reading of their noise: wider than the model only when they are.
    EXPECT_LT(r.spread, c.noise > 0.03 ? 3.0 : 1.6);
  }
  for (const auto& [noise, predicted] : predictedByNoise) {
    if (predicted.size() == 2) {
      EXPECT_GT(predicted.front(), predicted.back()) << noise;
    }
  }
}

// One moved chair, one misplaced wall or a wrong floor height cannot pull the answer.
TEST(JointRefiner, OneBadConstraintCannotPullTheResult) {
  struct Case {
    const char* name;
    int plane = -1;  // which plane to move
    double planeShift = 0;
    int landmark = -1;
    double landmarkShift = 0;
  };
  const Case cases[] = {{"none"},
                        {"wall 10 cm off", 0, 0.1},
                        {"floor 15 cm off", 4, 0.15},
                        {"chair moved 20 cm", -1, 0, 2, 0.2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SyntheticRoom room = testing::makeSyntheticRoom(61, 12);
    room.evidence.points.clear();
    SceneEvidence session = testing::carried(room.evidence, kTruth, 0.002, 62);
    if (c.plane >= 0) {
      PlaneObservation& p = session.planes[static_cast<size_t>(c.plane)];
      for (size_t k = 0; k < 3; ++k) p.origin[k] += c.planeShift * p.normal[k];
    }
    if (c.landmark >= 0)
      session.landmarks[static_cast<size_t>(c.landmark)].position[0] += c.landmarkShift;
    const Pose4 rough{kTruth.tx - 0.2, kTruth.ty + 0.05, kTruth.tz + 0.2, kTruth.theta - 4 * kDeg};
    const JointResult r = JointRefiner().refine(rough, room.evidence, PointGrid(), session);
    ASSERT_TRUE(r.verified) << r.why;
    EXPECT_LT(translationError(r.transform, kTruth), 0.015);
    EXPECT_LT(std::fabs(wrapAngle(r.transform.theta - kTruth.theta)), 0.3 * kDeg);
  }
}

// Large objects' centres move with the side a camera saw them from; small ones' hardly do. Large
// objects each seen from another side than in the map, all off the same way round the room,
// must not turn the answer that the small ones fix.
TEST(JointRefiner, LargeObjectsWeighLessThanSmallOnes) {
  struct Object {
    const char* label;
    double x, z;
  };
  const Object objects[] = {{"cup", 1.5, 0.5},           {"bottle", -1.2, 1.8},
                            {"vase", 0.3, -2.0},         {"book", -2.0, -0.6},
                            {"bowl", 2.2, -1.4},         {"couch", 2.8, 1.5},
                            {"dining table", -0.5, 2.6}, {"refrigerator", -2.6, -2.0}};
  SceneEvidence map;
  for (const Object& o : objects) {
    map.landmarks.push_back({static_cast<int64_t>(map.landmarks.size()), o.label, {o.x, 0.5, o.z}});
  }
  SceneEvidence session = testing::carried(map, kTruth, 0.003, 64);
  // 7 cm counter-clockwise about the room's middle (the map's origin, among the objects).
  const Vec3 from = kTruth.apply({0, 0.5, 0});
  for (Landmark& l : session.landmarks) {
    if (typicalFootprint(l.label) < 0.7) continue;
    const double dx = l.position[0] - from[0], dz = l.position[2] - from[2];
    const double r = std::hypot(dx, dz);
    l.position[0] += 0.07 * -dz / r;
    l.position[2] += 0.07 * dx / r;
  }
  const Pose4 rough{kTruth.tx + 0.05, kTruth.ty, kTruth.tz - 0.05, kTruth.theta + 1 * kDeg};
  auto headingError = [&](const JointRefinerOptions& o) {
    const JointResult r = JointRefiner(o).refine(rough, map, PointGrid(), session);
    return std::fabs(wrapAngle(r.transform.theta - kTruth.theta));
  };
  JointRefinerOptions alike;
  alike.objectSizeShare = 0;
  // Weighed alike, the three turn the answer visibly; weighed by size, they hardly do.
  EXPECT_GT(headingError(alike), 0.4 * kDeg);
  EXPECT_LT(headingError({}), 0.15 * kDeg);
}

// Planes keep the errors a platform gives them (an offset, and for a wall a turn about the point
// where it was first seen, metres from where the other session anchored it); objects are a few
// centimetres off. The walls still settle the heading and the horizontal translation, all of a
// rectangular room's walls the heading together, and neither is pulled off by the far ends of
// turned walls.
TEST(JointRefiner, PlanesWithTheErrorsPlatformsGiveThem) {
  struct Case {
    const char* name;
    double slide;         // metres each anchor lies from the other session's
    double headingSigma;  // radians
    double objectNoise;
    double bound;  // metres: RMS error of an asset two metres out over the trials
  };
  const Case cases[] = {{"anchors together", 0, 0.5 * kDeg, 0.03, 0.015},
                        {"anchors 3 m apart", 3, 0.5 * kDeg, 0.03, 0.016},
                        {"anchors 4 m apart, walls turned by a degree", 4, 1 * kDeg, 0.03, 0.02},
                        {"anchors 3 m apart, noisy objects", 3, 0.5 * kDeg, 0.05, 0.022}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    constexpr int kTrials = 24;
    double squares = 0;
    for (uint64_t trial = 0; trial < kTrials; ++trial) {
      SyntheticRoom room = testing::makeSyntheticRoom(90 + trial, 10);
      room.evidence.points.clear();
      SceneEvidence map = room.evidence;
      map.planes =
          testing::withPlaneErrors(map.planes, c.slide / 2, 0.01, c.headingSigma, 200 + trial);
      SceneEvidence session = testing::carried(room.evidence, kTruth, c.objectNoise, 300 + trial);
      session.planes = testing::withPlaneErrors(
          testing::carried({{}, room.evidence.planes, {}}, kTruth, 0, 0).planes, c.slide / 2, 0.01,
          c.headingSigma, 400 + trial);
      const Pose4 rough{kTruth.tx + 0.05, kTruth.ty - 0.03, kTruth.tz + 0.04,
                        kTruth.theta - 2 * kDeg};
      // Objects here are off alike in every direction.
      JointRefinerOptions options;
      options.objectHeightSigma = c.objectNoise;
      const JointResult r = JointRefiner(options).refine(rough, map, PointGrid(), session);
      ASSERT_TRUE(r.verified) << r.why;
      squares += std::pow(translationError(r.transform, kTruth), 2) +
                 std::pow(2 * wrapAngle(r.transform.theta - kTruth.theta), 2);
    }
    const double rms = std::sqrt(squares / kTrials);
    EXPECT_LT(rms, c.bound);
  }
}

// A floor's and a table top's anchors, squared to their edges, each tell the heading with an error
// of their own, apart from the walls' common frame: with them the heading is finer. Anchors
// squared to nothing in particular, or that do not tell their edges, change nothing.
TEST(JointRefiner, EdgesOfHorizontalPlanesTellTheHeading) {
  enum class Edges { kNone, kSquared, kArbitrary };
  constexpr int kTrials = 60;
  auto run = [](Edges edges, uint64_t trial) {
    const PlaneObservation table{
        "table", false, {0.8, 0.75, -0.5}, {0, 1, 0}, Pose4{0, 0, 0, 0.4}.apply({1, 0, 0})};
    auto [room, map] = tableRoom(500 + trial, 10, table, Vec3{1, 0, 0}, 600 + trial);
    SceneEvidence session = testing::carried(room.evidence, kTruth, 0.04, 700 + trial);
    // The session saw two of the walls.
    std::erase_if(session.planes, [](const PlaneObservation& p) {
      return p.planeId == "wall-east" || p.planeId == "wall-north";
    });
    session.planes = withDefaultPlaneErrors(session.planes, 800 + trial);
    // The same errors in every case; then the edges as the case has them.
    for (PlaneObservation& p : session.planes) {
      if (edges == Edges::kArbitrary) p.axis = Pose4{0, 0, 0, 0.5}.apply(p.axis);
      if (edges == Edges::kNone) p.axis = {0, 0, 0};
    }
    const Pose4 rough{kTruth.tx + 0.05, kTruth.ty - 0.03, kTruth.tz + 0.04,
                      kTruth.theta + 2 * kDeg};
    return JointRefiner().refine(rough, map, PointGrid(), session);
  };
  double squares[3] = {0, 0, 0};
  for (uint64_t trial = 0; trial < kTrials; ++trial) {
    const JointResult none = run(Edges::kNone, trial);
    const JointResult squared = run(Edges::kSquared, trial);
    const JointResult arbitrary = run(Edges::kArbitrary, trial);
    ASSERT_TRUE(none.verified && squared.verified && arbitrary.verified)
        << trial << ": " << none.why << squared.why << arbitrary.why << " " << none.predictedError
        << " " << squared.predictedError;
    EXPECT_EQ(arbitrary.transform.toText(), none.transform.toText()) << trial;
    EXPECT_EQ(arbitrary.matchValue, none.matchValue) << trial;
    squares[0] += std::pow(wrapAngle(none.transform.theta - kTruth.theta), 2);
    squares[1] += std::pow(wrapAngle(squared.transform.theta - kTruth.theta), 2);
  }
  const double rmsNone = std::sqrt(squares[0] / kTrials);
  const double rmsSquared = std::sqrt(squares[1] / kTrials);
  EXPECT_LT(rmsSquared, 0.9 * rmsNone) << rmsNone / kDeg << " deg without the edges";
}

// A table top whose outline both sessions gave alike fixes the translation along it, which walls
// of one direction cannot: with it the objects' scatter matters less. An outline of another size
// (a part of the top seen) is no evidence and changes nothing.
TEST(JointRefiner, OutlinesOfOneSizeFixTheTranslationAlongThePlane) {
  enum class Outline { kNone, kSame, kOtherSize };
  constexpr int kTrials = 40;
  auto run = [](Outline outline, uint64_t trial) {
    PlaneObservation table{"table", false, {0.8, 0.75, -0.5}, {0, 1, 0}, {1, 0, 0}};
    table.outline = PlaneOutline{{0.9, 0.75, -0.45}, 1.6, 0.8};
    auto [room, map] = tableRoom(700 + trial, 8, table, std::nullopt, 750 + trial);
    SceneEvidence session = testing::carried(room.evidence, kTruth, 0.05, 800 + trial);
    // The session saw the walls that face along x only: along z the walls fix nothing.
    session.planes = testing::carried({{}, room.evidence.planes, {}}, kTruth, 0, 0).planes;
    std::erase_if(session.planes, [](const PlaneObservation& p) {
      return p.planeId == "wall-north" || p.planeId == "wall-south";
    });
    session.planes = withDefaultPlaneErrors(session.planes, 850 + trial);
    for (PlaneObservation& p : session.planes) {
      if (!p.outline) continue;
      if (outline == Outline::kNone) p.outline.reset();
      if (outline == Outline::kOtherSize) {
        p.outline->shortSide -= 0.2;
        p.outline->centre[2] += 0.1;
      }
    }
    for (PlaneObservation& p : map.planes) {
      if (outline == Outline::kNone) p.outline.reset();
    }
    const Pose4 rough{kTruth.tx + 0.05, kTruth.ty - 0.03, kTruth.tz + 0.04,
                      kTruth.theta - 2 * kDeg};
    return refinerWithoutOneWayLimit().refine(rough, map, PointGrid(), session);
  };
  double squares[2] = {0, 0};
  for (uint64_t trial = 0; trial < kTrials; ++trial) {
    const JointResult none = run(Outline::kNone, trial);
    const JointResult same = run(Outline::kSame, trial);
    const JointResult other = run(Outline::kOtherSize, trial);
    ASSERT_TRUE(none.verified && same.verified && other.verified)
        << trial << ": " << none.why << same.why << other.why;
    EXPECT_EQ(none.outlines, 0);
    EXPECT_EQ(same.outlines, 1);
    EXPECT_EQ(other.transform.toText(), none.transform.toText()) << trial;
    // Where the table is, along the walls the session saw.
    auto alongZ = [](const Pose4& p) {
      const Vec3 table{0.9, 0.75, -0.45};
      const Vec3 got = p.apply(table), want = kTruth.apply(table);
      const Vec3 along = Pose4{0, 0, 0, kTruth.theta}.apply({0, 0, 1});
      return (got[0] - want[0]) * along[0] + (got[2] - want[2]) * along[2];
    };
    squares[0] += std::pow(alongZ(none.transform), 2);
    squares[1] += std::pow(alongZ(same.transform), 2);
  }
  const double rmsNone = std::sqrt(squares[0] / kTrials);
  const double rmsSame = std::sqrt(squares[1] / kTrials);
  EXPECT_LT(rmsSame, 0.75 * rmsNone) << rmsNone << " m without the outline";
}

// What a wrong place gives cannot verify: a row of identical chairs lined up with another room's
// row (or slid along its own by a chair), walls that lie elsewhere, evidence too loose to be fine.
TEST(JointRefiner, RejectsWhatAWrongPlaceCanGive) {
  constexpr double kChairSpacing = 0.7;
  auto withRow = [](std::vector<Landmark> landmarks, int chairs) {
    for (int k = 0; k < chairs; ++k) {
      landmarks.push_back({500 + k, "chair", {-1.4 + kChairSpacing * k, 0.45, 1.0}});
    }
    return landmarks;
  };
  const SyntheticRoom room = testing::makeSyntheticRoom(81, 12);
  SceneEvidence map = room.evidence;
  map.points.clear();
  map.landmarks = withRow(map.landmarks, 5);
  struct Case {
    const char* name;
    bool otherObjects = false;  // the session's other objects are another room's
    bool rowOnly = false;       // the session saw the row of chairs and nothing else
    double slide = 0;           // the hypothesis slid along the row, metres
    int movedWalls = 0;         // session walls 0.6 m out of place
    double noise = 0.004;
    int keep = 0;               // above 0: the session saw only that many objects and no planes
    const char* why = nullptr;  // none: verified
    int besideRow = 0;          // the session saw the row, that many other objects and the walls
    int otherRooms = 0;         // the map also holds that many rooms of the same size
    double turnedWalls = 0;     // radians every session wall is turned by
    // Radians each further room's walls are turned by against the one before (tracking that
    // turned while a long map was walked).
    double otherRoomsTurn = 0;
    bool threeWalls = false;  // the session saw three of the walls
    int movedObjects = 0;     // that many of the session's objects 0.4 m from the map's
    bool keepPlanes = false;  // with keep: the planes stay
    int walls = -1;           // 0 or more: the session saw only that many of the walls
    double objectJitter = 0;  // metres: the session's objects also off by this, each its own way
  };
  const Case cases[] = {
      {"the right room"},
      {"the right room, one wall of four elsewhere", false, false, 0, 1},
      {"another room with the same row", true, false, 0, 0, 0.004, 0,
       "too few kinds of object agree"},
      {"the row alone, slid by a chair", false, true, kChairSpacing, 0, 0.004, 0,
       "too few kinds of object agree"},
      {"half the walls elsewhere", false, false, 0, 2, 0.004, 0, "walls disagree"},
      {"four loose objects", false, false, 0, 0, 0.06, 4, "the evidence leaves too large an error"},
      // No wall pairs up, so none contradicts one: the rooms' walls must still face the same ways.
      {"walls facing other ways", false, false, 0, 0, 0.004, 0, "walls disagree", false, 0,
       15 * kDeg},
      {"the row and one more, walls agree", false, false, 0, 0, 0.004, 0, nullptr, 1},
      {"the row and one more in a map of three rooms", false, false, 0, 0, 0.004, 0,
       "too few kinds of object agree", 1, 2},
      // Two of one other label beside the row: still two labels, but more than chance lines up.
      {"the row and two more in a map of three rooms", false, false, 0, 0, 0.004, 0, nullptr, 2, 2},
      {"three walls, one elsewhere", false, false, 0, 1, 0.004, 0, "walls disagree", false, 0, 0, 0,
       true},
      {"three walls, none elsewhere", false, false, 0, 0, 0.004, 0, nullptr, false, 0, 0, 0, true},
      // The map's rooms share no one right-angled frame; the room the session is laid in has one.
      {"walls facing other ways in a long turned map", false, false, 0, 0, 0.004, 0,
       "walls disagree", false, 2, 15 * kDeg, -4 * kDeg},
      {"the right room of a long turned map", false, false, 0, 0, 0.004, 0, nullptr, false, 2, 0,
       -4 * kDeg},
      // Half the objects in place: enough beside walls that agree, not before any wall pairs up.
      {"half the objects in place, walls agree", false, false, 0, 0, 0.004, 8, nullptr, false, 0, 0,
       0, false, 4, true},
      // ... but not when the half that agrees agrees only loosely, as another room's can.
      {"half the objects in place, loosely, walls agree", false, false, 0, 0, 0.004, 8,
       "the objects that agree agree loosely", false, 0, 0, 0, false, 4, true, -1, 0.15},
      {"the objects in place, loosely, walls agree", false, false, 0, 0, 0.004, 8, nullptr, false,
       0, 0, 0, false, 0, true, -1, 0.15},
      {"half the objects in place, no walls yet", false, false, 0, 0, 0.004, 8,
       "most objects disagree", false, 0, 0, 0, false, 4},
      {"three objects and no walls yet", false, false, 0, 0, 0.004, 3, "too few objects agree"},
      // One wall leaves the room free along it: the objects must agree as they must without walls.
      {"half the objects in place, one wall", false, false, 0, 0, 0.004, 8, "most objects disagree",
       false, 0, 0, 0, false, 4, true, 1},
      {"the objects in place, one wall", false, false, 0, 0, 0.004, 8, nullptr, false, 0, 0, 0,
       false, 0, true, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SceneEvidence mapOf = map;
    for (int k = 1; k <= c.otherRooms; ++k) {
      for (const PlaneObservation& p : map.planes) {
        if (!p.vertical) continue;
        PlaneObservation other = p;
        other.origin[0] += 10.0 * k;
        other.normal = Pose4{0, 0, 0, c.otherRoomsTurn * k}.apply(p.normal);
        mapOf.planes.push_back(other);
      }
    }
    SceneEvidence seen = map;
    if (c.besideRow > 0) {
      // Others of one label, so that the labels stay two.
      std::vector<Landmark> others;
      for (const Landmark& l : map.landmarks) {
        if (l.label == "chair") continue;
        others.clear();
        std::copy_if(map.landmarks.begin(), map.landmarks.end(), std::back_inserter(others),
                     [&](const Landmark& k) { return k.label == l.label; });
        if (others.size() >= static_cast<size_t>(c.besideRow)) break;
      }
      ASSERT_GE(others.size(), static_cast<size_t>(c.besideRow));
      others.resize(static_cast<size_t>(c.besideRow));
      seen.landmarks = withRow(others, 5);
    }
    if (c.otherObjects) {
      seen.landmarks = withRow(testing::makeSyntheticRoom(82, 12).evidence.landmarks, 5);
    }
    if (c.rowOnly) {
      // ... and the walls along it, which cannot tell where along the row it stands.
      seen.landmarks = withRow({}, 5);
      std::erase_if(seen.planes, [](const PlaneObservation& p) { return p.normal[0] != 0; });
    }
    if (c.keep > 0) {
      seen.landmarks.resize(static_cast<size_t>(c.keep));
      if (!c.keepPlanes) seen.planes.clear();
    }
    if (c.walls >= 0) {
      int kept = 0;
      std::erase_if(seen.planes,
                    [&](const PlaneObservation& p) { return p.vertical && kept++ >= c.walls; });
    }
    for (int k = 0; k < c.movedObjects; ++k) {
      seen.landmarks[seen.landmarks.size() - 1 - static_cast<size_t>(k)].position[0] += 0.4;
    }
    if (c.threeWalls) {
      bool dropped = false;
      std::erase_if(seen.planes, [&](const PlaneObservation& p) {
        return p.vertical && !std::exchange(dropped, true);
      });
      ASSERT_TRUE(dropped);
    }
    SceneEvidence session = testing::carried(seen, kTruth, c.noise, 83);
    for (size_t k = 0; k < session.landmarks.size(); ++k) {
      session.landmarks[k].position[k % 2 ? 0 : 2] += k % 4 < 2 ? c.objectJitter : -c.objectJitter;
    }
    for (int k = 0; k < c.movedWalls; ++k) {
      PlaneObservation& wall = session.planes[static_cast<size_t>(k)];
      ASSERT_TRUE(wall.vertical);
      for (size_t a = 0; a < 3; ++a) wall.origin[a] -= 0.6 * wall.normal[a];
    }
    for (PlaneObservation& p : session.planes) {
      if (p.vertical) p.normal = Pose4{0, 0, 0, c.turnedWalls}.apply(p.normal);
    }
    // The hypothesis (slid along the row in the map's frame), a little off as proposals are.
    Pose4 rough = kTruth;
    const Vec3 slide = Pose4{0, 0, 0, kTruth.theta}.apply({c.slide, 0, 0});
    rough.tx += slide[0] + 0.04;
    rough.tz += slide[2] - 0.03;
    rough.theta += 1 * kDeg;
    // A few objects alone, with no plane at all, also leave more than the one-direction error
    // limit (three, more than any limit); the count and the share are what those cases are about.
    const bool objectsOnly = c.walls < 0 && c.keep > 0 && !c.keepPlanes;
    JointRefinerOptions options = refinerWithoutOneWayLimit().options();
    if (objectsOnly && c.keep < 4) options.maxPredictedError = options.maxPredictedErrorOneWay = 1;
    const JointResult r = (objectsOnly ? JointRefiner(options) : JointRefiner())
                              .refine(rough, mapOf, PointGrid(), session);
    if (!c.why) {
      EXPECT_TRUE(r.verified) << r.why;
      EXPECT_LT(translationError(r.transform, kTruth), 0.02);
      EXPECT_GT(r.matchValue, 0.55);
    } else {
      EXPECT_FALSE(r.verified);
      EXPECT_EQ(r.why, c.why);
      EXPECT_EQ(r.matchValue, 0);
    }
  }
}

TEST(ImageFeatureIndex, ApproximateSearchFindsWhatTheFullScanFinds) {
  const auto map = testing::makeFrames(3000, 48, 71);
  const ImageFeatureIndex exact(map, map.size() + 1), approximate(map, 1);
  ASSERT_FALSE(exact.approximate());
  ASSERT_TRUE(approximate.approximate());
  const auto session = testing::reseen(map, kTruth, 0.05, 0, 72);
  std::vector<float> unit(exact.stride());
  int same = 0, total = 0;
  for (size_t i = 0; i < session.size(); i += 7) {
    ASSERT_TRUE(exact.normalise(session[i].features, unit.data()));
    const auto want = exact.best(unit.data());
    const auto got = approximate.best(unit.data());
    EXPECT_NEAR(got.second, want.second, 1e-4f * (got.first == want.first));
    same += got.first == want.first;
    ++total;
  }
  EXPECT_GE(same, total * 95 / 100);
}

TEST(SessionRecords, ParsesPointText) {
  struct Case {
    const char* text;
    int points;  // -1: refused
  };
  const Case cases[] = {{"{}", 0},
                        {"{99:[0.5,-1.25,2]}", 1},
                        {"{1:[1,2,3],2:[4,5,6]}", 2},
                        {"{3:[nan,0,0]}", 1},  // kept for the reader to count
                        {"", -1},
                        {"{", -1},
                        {"{1:[1,2]}", -1},
                        {"{1:[1,2,3,4]}", -1},
                        {"{1:[1,2,3]", -1},
                        {"{1:[1,2,3]}x", -1},
                        {"{-1:[1,2,3]}", -1},
                        {"{1:[1,2,3],}", -1},
                        {"{1;[1,2,3]}", -1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const auto got = parsePointText(c.text);
    ASSERT_EQ(got.has_value(), c.points >= 0);
    if (got) {
      EXPECT_EQ(static_cast<int>(got->size()), c.points);
    }
  }
  const auto two = parsePointText("{7:[1.5,-2,3.25],8:[0,0,1e-3]}");
  ASSERT_TRUE(two);
  EXPECT_EQ((*two)[0].first, 7u);
  EXPECT_EQ((*two)[0].second, (Vec3{1.5, -2, 3.25}));
  EXPECT_EQ((*two)[1].second, (Vec3{0, 0, 1e-3}));
}

}  // namespace
}  // namespace omra::server
