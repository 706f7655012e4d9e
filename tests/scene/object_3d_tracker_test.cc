#include "src/scene/object_3d_tracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "src/scene/memory_scene_graph.h"
#include "src/scene/ssd_anchors.h"
#include "src/scene/ssd_post_processor.h"

namespace omra {
namespace {

const std::vector<std::string>& names() {
  static const std::vector<std::string> n = *SSDPostProcessor(1917, 90, 0.01).classNames;
  return n;
}
constexpr int kChair = 62, kTv = 72, kPerson = 1;

Prediction predictionOf(int cls, double score) {
  return {700, score, OrientedBoundingBox::fromAnchor(SSDAnchors::ssdAnchors()[700]), {}, cls};
}

// A frame whose hit tests land on the eight corners of a cube (centre, half size), three times
// each; the last of every 25 queries finds nothing. The camera stands at camera.
ArFrame cubeFrame(Vector3 centre, float half, Vector3 camera = {0, 0, 0}) {
  ArFrame f;
  f.camera.transform.columns[3] = {camera.x, camera.y, camera.z, 1};
  auto n = std::make_shared<int>(0);
  f.hitTest = [n, centre, half](Float2, HitTestType) -> std::vector<HitTestResult> {
    const int i = (*n)++ % 25;
    if (i == 24) return {};
    HitTestResult r;
    r.worldTransform.columns[3] = {centre.x + (i & 1 ? half : -half),
                                   centre.y + (i & 2 ? half : -half),
                                   centre.z + (i & 4 ? half : -half), 1};
    return {r};
  };
  return f;
}

TEST(Object3DTrackerTest, ConfidenceRampsWithReadsAndGatesReporting) {
  Object3DTracker t(800, 600);
  const Vector3 c{0, 0, -2};
  const double want[] = {0.4, 0.56, 0.64, 0.72, 0.8, 0.8};
  for (int i = 0; i < 6; ++i) {
    const auto out = t.convert2DBBoxTo3D({predictionOf(kChair, 0.8)}, names(), cubeFrame(c, 0.1f));
    ASSERT_EQ(t.trackedObjects().size(), 1u);
    EXPECT_NEAR(t.trackedObjects()[0]->state.confidence, want[i], 1e-9) << i;
    // Strictly above 0.4 only: the first sighting is not reported.
    EXPECT_EQ(out.size(), i == 0 ? 0u : 1u) << i;
  }
  const auto out = t.convert2DBBoxTo3D({predictionOf(kChair, 0.8), predictionOf(kChair, 0.8)},
                                       names(), cubeFrame(c, 0.1f));
  ASSERT_EQ(out.size(), 2u);  // one entry per prediction, same object
  EXPECT_EQ(out[0].id(), out[1].id());
  EXPECT_EQ(out[0].name(), "chair");
  // Straight ahead of the camera, behind the points' median depth by the visible-surface depth.
  EXPECT_NEAR(out[0].center().x, 0, 1e-5);
  EXPECT_NEAR(out[0].center().z, -2 - Object3DTracker::kVisibleSurfaceDepth, 1e-5);
  EXPECT_NEAR(out[0].width(), 0.2, 1e-5);
}

TEST(Object3DTrackerTest, AssociationByClassOverlapAndDistance) {
  struct Case {
    const char* what;
    int secondClass;
    Vector3 secondCentre;
    size_t objects;
  };
  // Boxes of 1 m: centres 0.39 or 0.41 m apart still overlap. Seen from far away, so that both
  // boxes move back from their points alike.
  const Vector3 camera{0, 0, 1000};
  for (const Case& k : std::vector<Case>{{"same place", kChair, {0, 0, -2}, 1},
                                         {"other class", kTv, {0, 0, -2}, 2},
                                         {"0.39 m away", kChair, {0.39f, 0, -2}, 1},
                                         {"0.41 m away", kChair, {0.41f, 0, -2}, 2},
                                         {"no overlap", kChair, {0, 0, -3.2f}, 2}}) {
    Object3DTracker t(800, 600);
    t.convert2DBBoxTo3D({predictionOf(kChair, 0.9)}, names(), cubeFrame({0, 0, -2}, 0.5f, camera));
    t.convert2DBBoxTo3D({predictionOf(k.secondClass, 0.9)}, names(),
                        cubeFrame(k.secondCentre, 0.5f, camera));
    ASSERT_EQ(t.trackedObjects().size(), k.objects) << k.what;
    for (size_t i = 0; i < k.objects; ++i) EXPECT_EQ(t.trackedObjects()[i]->id, int(i)) << k.what;
  }
}

TEST(Object3DTrackerTest, HitsTooCloseOrNotFiniteAreIgnored) {
  const float nan = std::nanf("");
  struct Case {
    const char* what;
    Vector3 camera, hit;
    bool tracked;
  };
  for (const Case& k : std::vector<Case>{{"0.29 m away", {1, 1, 1}, {1, 1, 0.71f}, false},
                                         {"0.31 m away", {1, 1, 1}, {1, 1, 0.69f}, true},
                                         {"hit not finite", {1, 1, 1}, {1, nan, -1}, false},
                                         {"camera not finite", {nan, 1, 1}, {1, 1, -1}, false}}) {
    Object3DTracker t(800, 600);
    ArFrame f;
    f.camera.transform.columns[3] = {k.camera.x, k.camera.y, k.camera.z, 1};
    f.hitTest = [hit = k.hit](Float2, HitTestType) {
      HitTestResult r;
      r.worldTransform.columns[3] = {hit.x, hit.y, hit.z, 1};
      return std::vector<HitTestResult>{r};
    };
    t.convert2DBBoxTo3D({predictionOf(kChair, 0.9)}, names(), f);
    ASSERT_EQ(t.priorHittests().size(), 1u) << k.what;
    EXPECT_EQ(t.priorHittests().back().points.size(), k.tracked ? 25u : 0u) << k.what;
    EXPECT_EQ(t.trackedObjects().size(), k.tracked ? 1u : 0u) << k.what;
  }
}

TEST(Object3DTrackerTest, CentreSitsBehindTheMedianVisiblePoint) {
  // A camera at the origin looking down -z at an object whose front face is 2 m away.
  const Vector3 camera{0, 1.5f, 0};
  const float d = Object3DTracker::kVisibleSurfaceDepth;
  const BoundingBox3D box{-0.3f, 0.3f, 0, 0.8f, -2.6f, -1.8f, 0, 0.9};
  std::vector<Vector3> front;
  for (float x : {-0.2f, -0.1f, 0.f, 0.1f, 0.2f})
    for (float y : {0.2f, 0.4f, 0.6f}) front.push_back({x, y, -2});
  std::vector<Vector3> withSurroundings = front;
  // The floor in front of the object and the wall behind it, at the edges of the box.
  for (float x : {-0.3f, 0.3f}) withSurroundings.push_back({x, 0, -1.7f});
  for (float x : {-0.3f, 0.f, 0.3f}) withSurroundings.push_back({x, 0.8f, -3.5f});
  std::vector<Vector3> offAxis;  // the front face again, 1 m to the right
  for (const Vector3& p : front) offAxis.push_back({p.x + 1, p.y, p.z});
  struct Case {
    const char* what;
    std::vector<Vector3> points;
    Vector3 camera;
    float x, z;  // the expected horizontal centre
  };
  const float diagonal = 1 / std::sqrt(5.f);  // the view towards (1, -2)
  for (const Case& k : std::vector<Case>{
           {"front face", front, camera, 0, -2 - d},
           {"floor and wall around it", withSurroundings, camera, 0, -2 - d},
           {"seen at an angle", offAxis, camera, 1 + d * diagonal, -2 - 2 * d * diagonal},
           {"no points", {}, camera, 0, -2.2f},
           {"camera right above", front, {0, 3, -2.02f}, 0, -2.2f}}) {
    const BoundingBox3D moved =
        Object3DTracker::centreBehindVisibleSurface(box, k.points, k.camera);
    EXPECT_NEAR(moved.center().x, k.x, 1e-4) << k.what;
    EXPECT_NEAR(moved.center().z, k.z, 1e-4) << k.what;
    // Height, extents, heading and score are the box's.
    EXPECT_FLOAT_EQ(moved.minY, box.minY) << k.what;
    EXPECT_FLOAT_EQ(moved.maxY, box.maxY) << k.what;
    EXPECT_NEAR(moved.size().x, box.size().x, 1e-5) << k.what;
    EXPECT_NEAR(moved.size().z, box.size().z, 1e-5) << k.what;
    EXPECT_EQ(moved.theta, box.theta) << k.what;
    EXPECT_EQ(moved.confidence, box.confidence) << k.what;
  }
}

BoundingBox3D boxAt(float x, double confidence) {
  return {x - 0.1f, x + 0.1f, -0.1f, 0.1f, -2.1f, -1.9f, 0, confidence};
}

TEST(TrackedObjectTest, StillObjectIgnoresWeakReadsAndKeeps41) {
  TrackedObject o(3, boxAt(0, 0.9), "chair", std::nullopt);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(o.push(boxAt(0, 0.9)));
  EXPECT_GT(o.state.confidence, 0.75);
  EXPECT_FALSE(o.push(boxAt(0, 0.7)));  // weak read on a settled still object
  EXPECT_EQ(o.reads.size(), 5u);
  EXPECT_TRUE(o.push(boxAt(0, 0.75)));  // not below 0.75
  for (int i = 0; i < 60; ++i) o.push(boxAt(0, 0.9));
  EXPECT_EQ(o.reads.size(), 41u);
  EXPECT_FALSE(o.state.isMoving);
}

TEST(TrackedObjectTest, MovingObjectKeepsTwentyAndTakesWeakReads) {
  TrackedObject o(0, boxAt(0, 0.9), "chair", std::nullopt);
  for (int i = 1; i < 30; ++i) o.push(boxAt(0.2f * i, 0.9));  // 0.2 m per read: moving
  EXPECT_TRUE(o.state.isMoving);
  EXPECT_NEAR(o.state.velocity, 0.15f, 1e-4);  // three steps of 0.2 over 4
  EXPECT_EQ(o.reads.size(), 20u);
  EXPECT_TRUE(o.push(boxAt(6.0f, 0.1)));
  EXPECT_EQ(o.reads.size(), 20u);
  // A person is always moving, from the first read.
  TrackedObject p(1, boxAt(0, 0.9), "person", true);
  EXPECT_TRUE(p.state.isMoving);
  for (int i = 0; i < 5; ++i) p.push(boxAt(0, 0.9));
  EXPECT_TRUE(p.push(boxAt(0, 0.1)));
}

TEST(TrackedObjectTest, StateIsTheMedianOfReads) {
  TrackedObject o(0, boxAt(0, 0.5), "cup", std::nullopt);
  o.push(boxAt(0.1f, 0.7));
  o.push(boxAt(5.0f, 0.9));  // an outlier read moves the median little
  EXPECT_NEAR(o.state.position.x, 0.1f, 1e-6);
  EXPECT_NEAR(o.state.confidence, 0.7 * 0.8, 1e-9);
  EXPECT_NEAR(o.state.boundingBox.maxX - o.state.boundingBox.minX, 0.2f, 1e-6);
  const DetectedObject d = o.toDetectedObjectForCustomer();
  EXPECT_EQ(d.name(), "cup");
  EXPECT_FLOAT_EQ(d.confidence(), static_cast<float>(0.56));
  EXPECT_NE(d.print().find("cup, 0.56"), std::string::npos) << d.print();
}

TEST(HitPointsTest, BoxAroundPointsWithHeadingAndRounding) {
  const BoundingBox3D e = HitPoints().getBoundingRectangle(0.6);
  EXPECT_TRUE(e.isEmpty());
  EXPECT_EQ(e.confidence, 0.6);

  HitPoints one;
  one.points = {{1, 2, 3}};
  const BoundingBox3D b = one.getBoundingRectangle(0.5);
  EXPECT_NEAR(b.maxX - b.minX, HitPoints::kMinSpan, 1e-6);
  EXPECT_NEAR(b.center().y, 2, 1e-6);

  // Points along a line at 30 degrees in x-z, plus one far outlier.
  HitPoints line;
  const float th = 0.5235988f;
  for (int i = -5; i <= 5; ++i)
    line.points.push_back({0.1f * i * std::cos(th), 0.f, 0.1f * i * std::sin(th)});
  line.points.push_back({5, 5, 5});
  const BoundingBox3D l = line.getBoundingRectangle(0.9);
  EXPECT_EQ(line.filteredPoints.size(), 11u);
  EXPECT_NEAR(l.theta, th, 1e-4);
  EXPECT_NEAR(l.maxX - l.minX, 1.0f, 0.011f);  // the length along the heading
  const auto corners = l.getCubeVertices(false);
  // Turned corners reach the ends of the line.
  EXPECT_NEAR(corners[1].x, 0.5f * std::cos(th) + 0.025f * std::sin(th), 0.01f);
}

TEST(SemanticNetworkTest, LinksConfidentNearbyVisibleObjects) {
  auto scene = std::make_shared<MemorySceneGraph>();
  std::vector<std::unique_ptr<TrackedObject>> objs;
  for (int i = 0; i < 3; ++i) {
    objs.push_back(std::make_unique<TrackedObject>(i + 10, boxAt(0.9f * i, 0.9), "cup", false));
    for (int r = 0; r < 5; ++r) objs.back()->push(boxAt(0.9f * i, 0.9));
    objs.back()->show(*scene);
  }
  SemanticNetwork net;
  net.update(scene.get(), objs);
  // 0.9 m apart: 10-11 and 11-12 linked, 10-12 (1.8 m) not.
  ASSERT_EQ(net.visualEdges.size(), 2u);
  ASSERT_TRUE(net.visualEdges.count("10|11"));
  const auto edge = scene->node(net.visualEdges["10|11"]);
  ASSERT_TRUE(edge);
  EXPECT_EQ(edge->color, Color::purple());
  EXPECT_FLOAT_EQ(edge->radius, 0.001f);
  // Hiding one object removes its edge from the scene and the map.
  const SceneNodeId gone = net.visualEdges["11|12"];
  objs[2]->hide(scene.get());
  net.update(scene.get(), objs);
  EXPECT_EQ(net.visualEdges.size(), 1u);
  EXPECT_FALSE(scene->node(gone));
}

TEST(SceneDrawingTest, ShowDrawsByConfidence) {
  MemorySceneGraph scene;
  TrackedObject o(0, boxAt(0, 0.9), "tv", std::nullopt);  // 0.45: plain box
  o.show(scene);
  EXPECT_EQ(o.visualNodes.size(), 12u);
  EXPECT_TRUE(o.isVisible);
  for (int r = 0; r < 4; ++r) o.push(boxAt(0, 0.9));  // 0.9: labelled
  o.show(scene);
  ASSERT_EQ(o.visualNodes.size(), 13u);
  EXPECT_EQ(scene.attachedNodes().size(), 13u);  // the old drawing is gone
  const auto label = scene.node(o.visualNodes.back());
  ASSERT_TRUE(label);
  EXPECT_EQ(label->text, "tv (0.90)");
  EXPECT_EQ(label->font, "Arial");
  o.hide(&scene);
  EXPECT_TRUE(scene.attachedNodes().empty());
}

}  // namespace
}  // namespace omra
