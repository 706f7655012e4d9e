// The harder conditions of the simulator really happen: drift, noisy points, partial paths,
// changed and wrong rooms, a person, identical chairs, spaces of several rooms, image descriptors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "sim/frame_image.h"
#include "sim/scan_path.h"
#include "sim/scenario.h"
#include "sim/view_descriptor.h"
#include "tests/sim/sim_testutil.h"

namespace omra::sim {
namespace {

using testing::detectionCounts;
using testing::framesOf;
using testing::truePositions;

Vec3 positionOf(const RecordedFrame& f) { return Vec3::from(f.worldFromCamera.translation()); }

// Tracked minus true camera position, per frame, next to the distance walked so far.
struct DriftTrace {
  std::vector<double> walked, error;
  double headingError = 0;  // at the end, radians
};

DriftTrace driftOf(const Scenario& s, const ScenarioOptions& o) {
  const SessionOptions session = mappingSessionOptions(o);
  const std::vector<Vec3> truth = truePositions(*s.room, *s.mapping, session);
  const auto frames = framesOf(*s.mapping);
  DriftTrace out;
  double walked = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (i > 0) walked += (truth[i] - truth[i - 1]).norm();
    out.walked.push_back(walked);
    out.error.push_back((positionOf(*frames[i]) - truth[i]).norm());
  }
  const ScanPath path(*s.room, session.seed, session.path);
  const double trueYaw =
      path.pose(frames.back()->index / session.fps).yaw + s.mapping->truth->sessionFromRoom.theta;
  out.headingError = std::fabs(wrapAngle(frames.back()->eulerAngles.y - trueYaw));
  return out;
}

TEST(Conditions, DriftGrowsWithDistanceWalked) {
  struct Case {
    double perMetre, yawPerMinute;
  };
  for (const Case c : {Case{0, 0}, Case{0.02, 0}, Case{0.01, 4}}) {
    SCOPED_TRACE(::testing::Message() << c.perMetre << " m/m, " << c.yawPerMinute << " deg/min");
    ScenarioOptions o = testing::shortScenarioOptions(41);
    o.mappingSeconds = 24;
    o.drift.positionPerMetre = c.perMetre;
    o.drift.yawDegreesPerMinute = c.yawPerMinute;
    const Scenario s = makeScenario(o);
    const DriftTrace d = driftOf(s, o);
    const size_t quarter = d.error.size() / 4, last = d.error.size() - 1;
    if (c.perMetre == 0 && c.yawPerMinute == 0) {
      EXPECT_LT(*std::max_element(d.error.begin(), d.error.end()), 1e-5);
      EXPECT_LT(d.headingError, 1e-5);
      continue;
    }
    EXPECT_LT(d.error[0], 1e-6);  // the origin is where the tracking starts
    // The truth's per-frame track explains every tracked camera position.
    const SessionOptions session = mappingSessionOptions(o);
    const std::vector<Vec3> truth = truePositions(*s.room, *s.mapping, session);
    const auto frames = framesOf(*s.mapping);
    ASSERT_EQ(s.mapping->truth->trackedFromRoom.size(), frames.size());
    for (size_t i = 0; i < frames.size(); i += 37) {
      const Vec3 room = s.mapping->truth->sessionFromRoom.inverse().apply(truth[i]);
      EXPECT_LT((s.mapping->truth->sessionFromRoomAt(frames[i]->index).apply(room) -
                 positionOf(*frames[i]))
                    .norm(),
                1e-4);
    }
    auto mean = [&](size_t from, size_t to) {
      double sum = 0;
      for (size_t i = from; i < to; ++i) sum += d.error[i];
      return sum / static_cast<double>(to - from);
    };
    EXPECT_GT(mean(3 * quarter, last), 1.5 * mean(0, quarter));
    // Of the order of the rate times the way walked (the direction turns, so less than that).
    const double bound = c.perMetre * d.walked[last];
    EXPECT_GT(d.error[last], 0.2 * bound);
    EXPECT_LT(d.error[last], 1.5 * bound + d.walked[last] * (c.yawPerMinute * M_PI / 180 * 0.4));
    const double yawExpected = c.yawPerMinute * M_PI / 180 * o.mappingSeconds / 60;
    EXPECT_NEAR(d.headingError, yawExpected, 1e-3 + 0.5 * yawExpected);
  }
}

// Recorded points against the room's: depth error of the asked size, outliers at the asked rate.
TEST(Conditions, DepthNoiseAndOutliers) {
  struct Case {
    double sigma, outliers;
  };
  for (const Case c : {Case{0, 0}, Case{0.01, 0}, Case{0.01, 0.1}}) {
    SCOPED_TRACE(::testing::Message() << c.sigma << " sigma, " << c.outliers << " outliers");
    ScenarioOptions o = testing::shortScenarioOptions(43);
    o.pointNoise.depthSigma = c.sigma;
    o.pointNoise.outlierRate = c.outliers;
    const Scenario s = makeScenario(o);
    const YawTransform fromRoom = s.mapping->truth->sessionFromRoom;
    std::vector<double> errors;
    int far = 0;
    for (const auto& [id, p] : s.mapping->points) {
      const FeaturePoint& truth = s.room->points[static_cast<size_t>(id % 100'000 - 1)];
      const double e = (Vec3::from(p) - fromRoom.apply(truth.position)).norm();
      errors.push_back(e);
      if (e > 0.3) ++far;
    }
    ASSERT_GT(errors.size(), 300u);
    std::sort(errors.begin(), errors.end());
    const double median = errors[errors.size() / 2];
    const double farShare = static_cast<double>(far) / errors.size();
    if (c.sigma == 0) {
      EXPECT_LT(errors.back(), 1e-4);
      continue;
    }
    // Points 1-4 m away: a median of a few millimetres to a few centimetres.
    EXPECT_GT(median, 0.003);
    EXPECT_LT(median, 0.06);
    if (c.outliers == 0) {
      EXPECT_LT(farShare, 0.02);
    } else {
      EXPECT_GT(farShare, 0.4 * c.outliers);
      EXPECT_LT(farShare, 1.2 * c.outliers);
    }
  }
}

// The localization session's own path sees the asked share of what the map saw.
TEST(Conditions, PartialOverlapWithinTheAskedRange) {
  for (uint64_t seed : {51, 52, 53, 54}) {
    SCOPED_TRACE(seed);
    ScenarioOptions o = testing::shortScenarioOptions(seed);
    o.mappingSeconds = 16;
    o.localizationSeconds = 12;
    o.overlapMin = 1.0 / 3;
    o.overlapMax = 2.0 / 3;
    const Scenario s = makeScenario(o);
    std::set<int> mapped, common;
    for (auto [id, frames] : detectionCounts(*s.mapping)) {
      if (frames >= 3) mapped.insert(id);
    }
    for (auto [id, frames] : detectionCounts(*s.localization)) {
      if (frames >= 3 && mapped.count(id)) common.insert(id);
    }
    ASSERT_GT(mapped.size(), 5u);
    const double share = static_cast<double>(common.size()) / mapped.size();
    EXPECT_GE(share, 1.0 / 3 - 0.05);
    EXPECT_LE(share, 2.0 / 3 + 0.05);
  }
}

bool sameObject(const SimObject& a, const SimObject& b, double tolerance) {
  return a.className == b.className && (a.size - b.size).norm() < 1e-9 &&
         (a.center - b.center).norm() < tolerance;
}

TEST(Conditions, ObjectsMovedRemovedAndAdded) {
  ScenarioOptions o = testing::shortScenarioOptions(61);
  o.changes = {.moved = 3, .removed = 2, .added = 2};
  const Scenario s = makeScenario(o);
  const Room& before = *s.room;
  const Room& after = *s.localizationRoom;
  int stayed = 0, moved = 0, fresh = 0;
  for (const SimObject& a : after.objects) {
    bool same = false, shifted = false;
    for (const SimObject& b : before.objects) {
      same = same || sameObject(a, b, 1e-9);
      shifted = shifted || (a.className == b.className && (a.size - b.size).norm() < 1e-9 &&
                            (a.center - b.center).norm() >= 0.5);
    }
    stayed += same;
    moved += !same && shifted;
    fresh += !same && !shifted;
    EXPECT_LT(std::fabs(a.center.x), after.width / 2);
    EXPECT_LT(std::fabs(a.center.z), after.depth / 2);
  }
  EXPECT_EQ(after.objects.size(), before.objects.size());  // two gone, two new
  EXPECT_EQ(moved, 3);
  EXPECT_EQ(fresh, 2);
  EXPECT_EQ(stayed, static_cast<int>(before.objects.size()) - 5);
  // Points go with their objects, and the session sees the room as it now is.
  for (const FeaturePoint& p : after.points) {
    if (p.objectId == 0) continue;
    const SimObject& owner = *after.object(p.objectId);
    const Vec3 local = Mat3::rotY(-owner.yaw) * (p.position - owner.center);
    EXPECT_LE(std::fabs(local.x), owner.size.x / 2 + 1e-9);
    EXPECT_LE(std::fabs(local.y), owner.size.y / 2 + 1e-9);
    EXPECT_LE(std::fabs(local.z), owner.size.z / 2 + 1e-9);
  }
  EXPECT_EQ(s.localization->truth->room.objects.size(), after.objects.size());
}

TEST(Conditions, WrongRoomShowsNothingOfTheMap) {
  for (int rooms : {1, 4}) {
    SCOPED_TRACE(rooms);
    ScenarioOptions o = testing::shortScenarioOptions(71);
    o.wrongRoom = true;
    o.rooms = rooms;
    const Scenario s = makeScenario(o);
    ASSERT_TRUE(s.wrongRoom);
    std::vector<SimObject> mapped = s.room->objects;
    if (s.space) mapped = s.space->merged.objects;
    for (auto [id, frames] : detectionCounts(*s.localization)) {
      const SimObject& seen = *s.localizationRoom->object(id);
      for (const SimObject& m : mapped) {
        EXPECT_FALSE(sameObject(seen, m, 0.5)) << seen.className;
      }
    }
    EXPECT_FALSE(detectionCounts(*s.localization).empty());
  }
}

TEST(Conditions, PersonWalksThroughTheView) {
  ScenarioOptions o = testing::shortScenarioOptions(81);
  o.localizationSeconds = 12;
  for (bool person : {false, true}) {
    SCOPED_TRACE(person);
    o.personWalking = person;
    const Scenario s = makeScenario(o);
    int personFrames = 0, personPoints = 0, total = 0;
    for (const RecordedFrame* f : framesOf(*s.localization)) {
      ++total;
      for (const Detection& d : f->detections) personFrames += d.classIndex == 1;
      for (uint64_t id : f->pointIds) personPoints += id >= (1ULL << 40);
    }
    if (!person) {
      EXPECT_EQ(personFrames + personPoints, 0);
      continue;
    }
    EXPECT_GT(personFrames, total / 20);
    EXPECT_GT(personPoints, 100);
    // Its points are where the person was, not on the room's surfaces.
    const YawTransform roomFromSession = s.localization->truth->sessionFromRoom.inverse();
    for (const auto& [id, p] : s.localization->points) {
      if (id < (1ULL << 40)) continue;
      const Vec3 r = roomFromSession.apply(Vec3::from(p));
      EXPECT_LT(r.y, 1.8);
      EXPECT_LT(std::hypot(r.x, r.z), std::hypot(s.room->width, s.room->depth) / 2);
    }
  }
}

TEST(Conditions, RowOfIdenticalChairs) {
  for (uint64_t seed : {1, 2, 3, 4, 5}) {
    SCOPED_TRACE(seed);
    RoomOptions options;
    options.identicalRow = 5;
    const Room room = generateRoom(seed, options);
    int best = 0;
    for (const SimObject& a : room.objects) {
      int twins = 0;
      for (const SimObject& b : room.objects) {
        twins += a.className == b.className && (a.size - b.size).norm() < 1e-12 &&
                 std::fabs(a.yaw - b.yaw) < 1e-12;
      }
      best = std::max(best, twins);
    }
    EXPECT_GE(best, 5);
  }
}

TEST(Conditions, SpaceOfSeveralRoomsWalkedInOneSession) {
  ScenarioOptions o = testing::shortScenarioOptions(91);
  o.rooms = 5;
  const Scenario s = makeScenario(o);
  ASSERT_TRUE(s.space);
  ASSERT_EQ(s.space->cells.size(), 5u);
  // The walk goes through every room.
  const SessionOptions session = mappingSessionOptions(o);
  const ScanPath path(s.space->merged, session.seed, session.path);
  std::set<int> visited;
  for (const RecordedFrame* f : framesOf(*s.mapping)) {
    const Vec3 p = path.pose(f->index / session.fps).position;
    for (size_t k = 0; k < s.space->cells.size(); ++k) {
      if (std::fabs(p.x - s.space->cellCenterX[k]) < s.space->cells[k].width / 2)
        visited.insert(static_cast<int>(k));
    }
  }
  EXPECT_EQ(visited.size(), 5u);
  // Objects of every room were detected, and the truths agree on the localization room.
  std::set<int> cells;
  for (auto [id, frames] : detectionCounts(*s.mapping)) {
    cells.insert(s.space->cellOfObject[static_cast<size_t>(id - 1)]);
  }
  EXPECT_EQ(cells.size(), 5u);
  EXPECT_FALSE(cells.count(-1));  // walls are never reported
  int target = -1;
  for (size_t k = 0; k < s.space->cells.size(); ++k) {
    if (s.space->cells[k].width == s.room->width &&
        s.space->cells[k].objects.size() == s.room->objects.size())
      target = static_cast<int>(k);
  }
  ASSERT_GE(target, 0);
  const YawTransform mapFromRoom = s.mapping->truth->sessionFromRoom;
  const Vec3 cellShift{s.space->cellCenterX[static_cast<size_t>(target)], 0, 0};
  int checked = 0;
  for (const auto& [id, p] : s.mapping->points) {
    const size_t index = static_cast<size_t>(id % 100'000 - 1);
    if (s.space->cellOfPoint[index] != target) continue;
    const Vec3 inRoom = s.space->merged.points[index].position - cellShift;
    EXPECT_LT((mapFromRoom.apply(inRoom) - Vec3::from(p)).norm(), 1e-4);
    ++checked;
  }
  EXPECT_GT(checked, 100);
}

// The activation from the rendered view knows only what the camera sees: turning the room and
// the camera together (and the light with them) changes nothing, which the room-frame descriptor
// fails; the light's change shows; nearby views are more alike than distant ones.
TEST(Conditions, DescriptorFromTheRenderedView) {
  const Scenario& s = testing::shortScenario();
  const Room& room = *s.room;
  Room turned = room;
  const Mat3 half = Mat3::rotY(M_PI);
  for (SimObject& o : turned.objects) {
    o.center = half * o.center;
    o.yaw += M_PI;
  }
  const ScanPath path(room, 5);
  const CameraModel camera;
  const Lighting light;
  Lighting turnedLight = light;
  turnedLight.azimuth += M_PI;
  Lighting dim = light;
  dim.gain = 0.6;
  dim.azimuth += 1.5;
  auto descriptor = [&](const Room& r, const CameraPose& p, const Lighting& l) {
    return imageDescriptor(renderView(r, camera, p, l, kDescriptorImageSize, kDescriptorImageSize))
        .values;
  };
  double worstTurned = 1, lightSum = 0, nearSum = 0, farSum = 0;
  int roomFrameDiffers = 0;
  constexpr int kViews = 8;
  for (int i = 0; i < kViews; ++i) {
    const CameraPose pose = path.pose(1.7 * i);
    CameraPose turnedPose = pose;
    turnedPose.position = half * pose.position;
    turnedPose.rotation = half * pose.rotation;
    const auto here = descriptor(room, pose, light);
    worstTurned =
        std::min(worstTurned, cosineSimilarity(here, descriptor(turned, turnedPose, turnedLight)));
    roomFrameDiffers += cosineSimilarity(viewDescriptor(room, camera, pose).values,
                                         viewDescriptor(turned, camera, turnedPose).values) < 0.99;
    lightSum += cosineSimilarity(here, descriptor(room, pose, dim));
    nearSum += cosineSimilarity(here, descriptor(room, path.pose(1.7 * i + 0.1), light));
    farSum += cosineSimilarity(here, descriptor(room, path.pose(1.7 * i + 6), light));
  }
  EXPECT_GT(worstTurned, 0.9999);
  EXPECT_EQ(roomFrameDiffers, kViews);
  EXPECT_LT(lightSum / kViews, 0.995);
  EXPECT_GT(nearSum, farSum + 0.05 * kViews);
  // The recorded activation is the rendered view's when asked for.
  ScenarioOptions o = testing::shortScenarioOptions(7);
  o.descriptorFromImage = true;
  o.lightingChange = 0.8;
  const Scenario lit = makeScenario(o);
  const RecordedFrame& f = *framesOf(*lit.localization)[30];
  const SessionOptions session = localizationSessionOptions(o);
  const CameraPose pose = ScanPath(*lit.room, session.seed, session.path).pose(30 / session.fps);
  EXPECT_EQ(f.activation.values, descriptor(*lit.room, pose, session.lighting));
  EXPECT_NE(f.activation.values, descriptor(*lit.room, pose, light));

  // In a space of several rooms too, where each frame looks only at the nearby rooms' objects.
  ScenarioOptions spaced = testing::shortScenarioOptions(17);
  spaced.rooms = 3;
  spaced.descriptorFromImage = true;
  const Scenario flat = makeScenario(spaced);
  const SessionOptions walk = mappingSessionOptions(spaced);
  const ScanPath route(flat.space->merged, walk.seed, walk.path);
  int same = 0, checked = 0;
  const auto frames = framesOf(*flat.mapping);
  for (size_t i = 0; i < frames.size(); i += 300) {
    ++checked;
    same += frames[i]->activation.values ==
            descriptor(flat.space->merged, route.pose(frames[i]->index / walk.fps), light);
  }
  EXPECT_GE(same, checked * 9 / 10);
}

}  // namespace
}  // namespace omra::sim
