#include "sim/session_simulator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <sstream>

#include "sim/recording_io.h"
#include "sim/recording_player.h"
#include "sim/scan_path.h"
#include "sim/view_descriptor.h"
#include "tests/sim/sim_testutil.h"

namespace omra::sim {
namespace {

using testing::shortScenario;

using testing::framesOf;

Vec3 positionOf(const RecordedFrame& f) { return Vec3::from(f.worldFromCamera.translation()); }

std::string written(const Recording& r) {
  std::ostringstream out;
  writeRecording(r, out);
  return out.str();
}

// Everything recorded (poses, points, detections, descriptors, planes) is the same for a seed.
TEST(SimulateSession, DeterministicPerSeed) {
  const Scenario& s = shortScenario();
  EXPECT_EQ(written(simulateSession(*s.room, s.seed,
                                    mappingSessionOptions(testing::shortScenarioOptions(7)))),
            written(*s.mapping));
  // The other session of the scenario starts elsewhere.
  EXPECT_NE(s.mapping->truth->sessionFromRoom.theta, s.localization->truth->sessionFromRoom.theta);
}

// The session's origin is its first camera: at (0,0,0) with heading 0. Frames come 60 a second,
// gravity stays along -y, roll stays inside the bounds that keep the image upright, and the camera
// moves enough for the kit's motion gating (mean step over a 4-frame window above 1 mm or 1 mrad).
TEST(SimulateSession, HandheldMotionFromTheOrigin) {
  const Scenario& s = shortScenario();
  for (const Recording* r : {s.mapping.get(), s.localization.get()}) {
    auto frames = framesOf(*r);
    ASSERT_EQ(frames.size(), r == s.mapping.get() ? 240u : 180u);
    EXPECT_NEAR(positionOf(*frames[0]).norm(), 0, 1e-5);
    EXPECT_NEAR(frames[0]->eulerAngles.y, 0, 1e-5);
    for (size_t i = 0; i < frames.size(); ++i) {
      const RecordedFrame& f = *frames[i];
      EXPECT_GT(f.worldFromCamera.columns[1].y, std::cos(0.7));
      EXPECT_LT(std::fabs(f.eulerAngles.z), M_PI / 4);
      EXPECT_NEAR(f.timestamp - frames[0]->timestamp, i / 60.0, 1e-9);
      if (i < 4) continue;
      Vec3 step = (positionOf(f) - positionOf(*frames[i - 4])) * 0.25;
      Vec3 turn = (Vec3::from(f.eulerAngles) - Vec3::from(frames[i - 4]->eulerAngles)) * 0.25;
      EXPECT_TRUE(step.norm() > 0.001 || turn.norm() > 0.001) << "still at frame " << i;
    }
  }
}

// Room points carried into both sessions agree with the truth transform between the sessions,
// and the cameras' room poses agree with both sessions' views of them.
TEST(SimulateSession, KnownTransformBetweenSessions) {
  const Scenario& s = shortScenario();
  YawTransform mapFromRoom = s.mapping->truth->sessionFromRoom;
  YawTransform locFromRoom = s.localization->truth->sessionFromRoom;
  YawTransform locFromMap = s.localizationFromMapping();
  for (const SimObject& o : s.room->objects) {
    EXPECT_NEAR(
        (locFromMap.apply(mapFromRoom.apply(o.center)) - locFromRoom.apply(o.center)).norm(), 0,
        1e-9);
  }
  // The first frame of each session, back in the room frame, is where the scan path put it.
  ScanPath mapPath(*s.room, mappingSessionOptions(testing::shortScenarioOptions(7)).seed);
  auto frames = framesOf(*s.mapping);
  for (size_t i : {size_t{0}, frames.size() / 2, frames.size() - 1}) {
    CameraPose p = mapPath.pose(static_cast<double>(frames[i]->index) / 60.0);
    Vec3 back = mapFromRoom.inverse().apply(positionOf(*frames[i]));
    EXPECT_NEAR((back - p.position).norm(), 0, 1e-5);
    EXPECT_NEAR(wrapAngle(frames[i]->eulerAngles.y - mapFromRoom.theta - p.yaw), 0, 1e-5);
    EXPECT_NEAR(frames[i]->eulerAngles.x, p.pitch, 1e-5);
    EXPECT_NEAR(frames[i]->eulerAngles.z, p.roll, 1e-5);
  }
}

// Every reported feature point is in the image, faces the camera and is not hidden by an object.
TEST(SimulateSession, VisibleFeaturePointsAreInViewAndUnoccluded) {
  const Scenario& s = shortScenario();
  YawTransform roomFromMap = s.mapping->truth->sessionFromRoom.inverse();
  CameraModel cam;
  size_t checked = 0;
  for (const RecordedFrame* f : framesOf(*s.mapping)) {
    if (f->index % 30 != 0) continue;
    ASSERT_FALSE(f->pointIds.empty());
    Mat3 toCamera = rotationOf(f->worldFromCamera).transposed();
    Vec3 camRoom = roomFromMap.apply(positionOf(*f));
    for (uint64_t id : f->pointIds) {
      Vec3 p = Vec3::from(s.mapping->points.at(id));
      auto img = cam.project(toCamera * (p - positionOf(*f)));
      ASSERT_TRUE(img.has_value());
      EXPECT_TRUE(img->first >= 0 && img->first <= 1 && img->second >= 0 && img->second <= 1);
      // Nothing between the camera and the point but, at most, the point's own object.
      Vec3 pRoom = roomFromMap.apply(p);
      RayHit hit = s.room->castRay(camRoom, (pRoom - camRoom).normalized());
      EXPECT_GT(hit.distance, (pRoom - camRoom).norm() - 0.003);
      ++checked;
    }
  }
  EXPECT_GT(checked, 500u);
}

// Detections frame their objects: the projection of the object's centre falls in the box, and the
// boxes of visible objects keep coming.
TEST(SimulateSession, DetectionsFrameTheirObjects) {
  const Scenario& s = shortScenario();
  YawTransform mapFromRoom = s.mapping->truth->sessionFromRoom;
  CameraModel cam;
  std::set<int> seenObjects;
  size_t boxes = 0;
  for (const RecordedFrame* f : framesOf(*s.mapping)) {
    Mat3 toCamera = rotationOf(f->worldFromCamera).transposed();
    for (const Detection& d : f->detections) {
      EXPECT_GT(d.xMax, d.xMin);
      EXPECT_GT(d.yMax, d.yMin);
      EXPECT_GT(d.score, 0.1f);
      if (d.objectId == 0) continue;
      const SimObject* o = s.room->object(d.objectId);
      ASSERT_NE(o, nullptr);
      EXPECT_EQ(d.classIndex, o->classIndex);
      auto img = cam.project(toCamera * (mapFromRoom.apply(o->center) - positionOf(*f)));
      ASSERT_TRUE(img.has_value());
      auto [x, y] = cam.imageToModel(img->first, img->second);
      double slackX = 0.1 * (d.xMax - d.xMin) + 0.01, slackY = 0.1 * (d.yMax - d.yMin) + 0.01;
      if (x > 0 && x < 1 && y > 0 && y < 1) {
        EXPECT_TRUE(x > d.xMin - slackX && x < d.xMax + slackX) << x;
        EXPECT_TRUE(y > d.yMin - slackY && y < d.yMax + slackY) << y;
      }
      seenObjects.insert(d.objectId);
      ++boxes;
    }
  }
  EXPECT_GE(seenObjects.size(), 3u);
  EXPECT_GT(boxes, 100u);
}

// Hit tests through a feature point's image position find it (or something nearer) first; results
// come nearest first and lie on real surfaces.
TEST(SimulateSession, HitTestReturnsSurfacePointsNearestFirst) {
  const Scenario& s = shortScenario();
  RecordingPlayer player(s.mapping);
  YawTransform roomFromMap = s.mapping->truth->sessionFromRoom.inverse();
  CameraModel cam;
  const RecordedFrame* f = framesOf(*s.mapping)[120];
  ArFrame frame = player.arFrame(*f, false);
  ASSERT_TRUE(frame.hitTest);
  Mat3 toCamera = rotationOf(f->worldFromCamera).transposed();
  const Vec3 camRoom = roomFromMap.apply(positionOf(*f));
  int tested = 0;
  for (size_t k = 0; k < f->pointIds.size(); k += 7) {
    Vec3 p = Vec3::from(s.mapping->points.at(f->pointIds[k]));
    double depth = (p - positionOf(*f)).norm();
    auto img = cam.project(toCamera * (p - positionOf(*f)));
    ASSERT_TRUE(img);
    auto hits = frame.hitTest({static_cast<float>(img->first), static_cast<float>(img->second)},
                              HitTestType::kFeaturePoint);
    ASSERT_FALSE(hits.empty());
    EXPECT_LE(hits[0].distance, depth + 1e-3);
    for (size_t i = 1; i < hits.size(); ++i) EXPECT_LE(hits[i - 1].distance, hits[i].distance);
    for (const HitTestResult& h : hits) {
      Vec3 q = roomFromMap.apply(Vec3::from(h.worldTransform.translation()));
      // A surface lies right at the hit: a ray from the camera towards it ends there.
      RayHit surface = s.room->castRay(camRoom, (q - camRoom).normalized());
      EXPECT_NEAR(surface.distance, (q - camRoom).norm(), 0.003);
    }
    ++tested;
  }
  EXPECT_GT(tested, 10);
  // Only feature-point hit tests are served.
  EXPECT_TRUE(frame.hitTest({0.5f, 0.5f}, static_cast<HitTestType>(2)).empty());
}

// Plane anchors come and go as a platform reports them: added first, then updated, removed last;
// walls vertical, floor and table top horizontal; boundaries inside the reported extent.
TEST(SimulateSession, PlaneAnchorLifecycle) {
  ScenarioOptions o = testing::shortScenarioOptions(21);
  o.mappingSeconds = 12;
  Room room = generateRoom(21);
  Recording r = simulateSession(room, 21, mappingSessionOptions(o));
  std::map<std::string, std::vector<PlaneEventKind>> history;
  int vertical = 0, horizontal = 0;
  for (const RecordingEvent& e : r.events) {
    const auto* p = std::get_if<PlaneEvent>(&e);
    if (!p) continue;
    history[p->anchor.identifier].push_back(p->kind);
    if (p->kind == PlaneEventKind::kAdded) {
      (p->anchor.alignment == PlaneAlignment::kVertical ? vertical : horizontal)++;
      // Anchor's y axis is the plane's normal: vertical planes have a horizontal normal.
      float ny = p->anchor.transform.columns[1].y;
      EXPECT_NEAR(std::fabs(ny), p->anchor.alignment == PlaneAlignment::kVertical ? 0 : 1, 1e-5);
    }
    if (p->kind != PlaneEventKind::kRemoved) {
      ASSERT_TRUE(p->anchor.boundaryVertices.has_value());
      for (const Float3& v : *p->anchor.boundaryVertices) {
        EXPECT_LE(std::fabs(v.x - p->anchor.center.x), p->anchor.extent.x / 2 + 1e-4);
        EXPECT_LE(std::fabs(v.z - p->anchor.center.z), p->anchor.extent.z / 2 + 1e-4);
        EXPECT_LT(p->anchor.extent.x, 8.0f);
      }
    }
  }
  EXPECT_GE(vertical, 1);
  EXPECT_GE(horizontal, 1);
  int removed = 0;
  for (const auto& [id, kinds] : history) {
    EXPECT_EQ(kinds.front(), PlaneEventKind::kAdded) << id;
    for (size_t i = 1; i < kinds.size(); ++i) {
      EXPECT_NE(kinds[i], PlaneEventKind::kAdded) << id;
      EXPECT_NE(kinds[i - 1], PlaneEventKind::kRemoved) << id << " used after removal";
    }
    removed += kinds.back() == PlaneEventKind::kRemoved;
  }
  EXPECT_EQ(removed, 1);  // the second floor patch, merged into the first
}

// One physical viewpoint gives one descriptor whatever the session; turning away changes it.
TEST(ViewDescriptor, DependsOnTheViewNotTheSession) {
  Room room = generateRoom(5);
  CameraModel cam;
  ScanPath path(room, 9);
  CameraPose a = path.pose(2.0);
  ActivationData da = viewDescriptor(room, cam, a);
  ASSERT_EQ(da.shape,
            (std::vector<int64_t>{1, kDescriptorRaysX * kDescriptorRaysY, kDescriptorFeatures}));
  ASSERT_EQ(da.values.size(), size_t(da.shape[1] * da.shape[2]));
  CameraPose near = a;
  near.position = near.position + Vec3{0.03, 0, 0.02};
  CameraPose turned = a;
  turned.yaw += 0.5;
  turned.rotation = rotationFromEuler(turned.pitch, turned.yaw, turned.roll);
  CameraPose far = path.pose(9.0);
  auto similarity = [&](const CameraPose& p) {
    return cosineSimilarity(da.values, viewDescriptor(room, cam, p).values);
  };
  EXPECT_DOUBLE_EQ(similarity(a), 1.0);
  const double nearSim = similarity(near);
  EXPECT_GT(nearSim, 0.9);
  EXPECT_LT(similarity(turned), nearSim - 0.2);
  EXPECT_LT(similarity(far), nearSim - 0.2);
}

}  // namespace
}  // namespace omra::sim
