#include "src/scene/object_3d_tracker.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "src/foundation/math.h"
#include "src/foundation/object_sizes.h"
#include "src/foundation/orientation.h"
#include "src/scene/detection_rays.h"
#include "src/scene/motion_analyzer.h"

namespace omra {
namespace {

// Overlap on one axis: the joint span is shorter than the two lengths together.
bool overlaps(float minA, float maxA, float minB, float maxB) {
  return std::max(maxA, maxB) - std::min(minA, minB) < (maxA - minA) + (maxB - minB);
}

bool overlaps3D(const BoundingBox3D& a, const BoundingBox3D& b) {
  return overlaps(a.minX, a.maxX, b.minX, b.maxX) && overlaps(a.minY, a.maxY, b.minY, b.maxY) &&
         overlaps(a.minZ, a.maxZ, b.minZ, b.maxZ);
}

// The median depth of points seen from camera along the horizontal unit direction towards.
float medianDepth(const std::vector<Vector3>& points, const Vector3& camera,
                  const Vector3& towards) {
  std::vector<float> depths;
  depths.reserve(points.size());
  for (const Vector3& p : points) {
    depths.push_back((p.x - camera.x) * towards.x + (p.z - camera.z) * towards.z);
  }
  return calculateMedian(depths);
}

// The box moved horizontally so that its centre lies depth from camera along towards.
BoundingBox3D centredAt(const BoundingBox3D& box, const Vector3& camera, const Vector3& towards,
                        float depth) {
  const Vector3 centre = box.center();
  const float shiftX = camera.x + towards.x * depth - centre.x;
  const float shiftZ = camera.z + towards.z * depth - centre.z;
  BoundingBox3D moved = box;
  moved.minX += shiftX, moved.maxX += shiftX;
  moved.minZ += shiftZ, moved.maxZ += shiftZ;
  return moved;
}

}  // namespace

Object3DTracker::Object3DTracker(double screenHeight_, double screenWidth_,
                                 std::shared_ptr<DeviceInfo> device)
    : screenHeight(screenHeight_), screenWidth(screenWidth_), device_(std::move(device)) {}

void Object3DTracker::setScene(std::shared_ptr<SceneGraph> scene) {
  std::lock_guard<std::mutex> lock(mutex_);
  scene_ = std::move(scene);
}

std::shared_ptr<SceneGraph> Object3DTracker::scene() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return scene_;
}

void Object3DTracker::setDeviceOrientationReading(std::function<int(phoneOrientation)> reading) {
  std::lock_guard<std::mutex> lock(mutex_);
  deviceReading_ = std::move(reading);
}

Rect Object3DTracker::convertViewCoordToNormalizedImage(const Rect& r, phoneOrientation o,
                                                        double screenHeight, double screenWidth,
                                                        int imageWidth, int imageHeight) {
  const double s = std::min(screenHeight, screenWidth);
  const double offset = std::abs(screenHeight - screenWidth) / 2;
  const bool portrait = o == phoneOrientation::portrait;
  // Back to the detector's square (0..1), in the captured image's axes.
  const double x = (r.x - (portrait ? 0 : offset)) / s, y = (r.y - (portrait ? offset : 0)) / s;
  const double w = r.width / s, h = r.height / s;
  // The square was the centre crop of the captured image.
  if (imageWidth <= 0 || imageHeight <= 0) return {x, y, w, h};
  const double side = std::min(imageWidth, imageHeight);
  const double ox = (imageWidth - side) / 2, oy = (imageHeight - side) / 2;
  return {(x * side + ox) / imageWidth, (y * side + oy) / imageHeight, w * side / imageWidth,
          h * side / imageHeight};
}

HitPoints Object3DTracker::getHitpointsForPrediction(const Prediction& prediction,
                                                     const ArFrame& frame) {
  HitPoints hits;
  const supportedOrientations supported =
      device_ ? applicationSupportedOrientations(*device_) : supportedOrientations::portrait;
  const phoneOrientation phone = orientationFromRoll(frame.camera.eulerAngles.z);
  int reading;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reading = deviceReading_ ? deviceReading_(phone) : static_cast<int>(phone);
  }
  const phoneOrientation effective = correctOrientationConversion(phone, supported, reading);
  const Rect screen = prediction.finalPrediction().convertToOrientation(screenHeight, screenWidth,
                                                                        phone, supported, reading);
  const Rect r =
      convertViewCoordToNormalizedImage(screen, effective, screenHeight, screenWidth,
                                        frame.capturedImage.width, frame.capturedImage.height);
  hits.imageRect = r;
  if (!frame.hitTest) return hits;
  const double stepX = (r.maxX() - r.minX()) / kGridSteps,
               stepY = (r.maxY() - r.minY()) / kGridSteps;
  const Vector3 cameraPosition(frame.camera.transform.translation());
  for (int i = 1; i <= kGridSteps; ++i) {
    for (int j = 1; j <= kGridSteps; ++j) {
      const Float2 point{static_cast<float>(r.minX() + i * stepX),
                         static_cast<float>(r.minY() + j * stepY)};
      const std::vector<HitTestResult> results = frame.hitTest(point, HitTestType::kFeaturePoint);
      if (results.empty()) continue;
      const Vector3 p(results.front().worldTransform.translation());
      // Too close to be the object; also what a broken pose or hit test makes not finite.
      if (!(p.dist(cameraPosition) >= kMinHitDistance) || !std::isfinite(p.x) ||
          !std::isfinite(p.y) || !std::isfinite(p.z)) {
        continue;
      }
      hits.points.push_back(p);
      hits.imagePoints.push_back(point);
    }
  }
  return hits;
}

BoundingBox3D Object3DTracker::centreBehindVisibleSurface(const BoundingBox3D& box,
                                                          const std::vector<Vector3>& points,
                                                          const Vector3& camera,
                                                          std::optional<Vector3> towards,
                                                          float behind) {
  if (points.empty()) return box;
  if (!towards) {
    const Vector3 median = getMedian(points);
    const float dx = median.x - camera.x, dz = median.z - camera.z;
    const float horizontal = std::hypot(dx, dz);
    if (!(horizontal >= kMinHorizontalView)) return box;  // also a camera that is not finite
    towards = Vector3(dx / horizontal, 0, dz / horizontal);
  }
  return centredAt(box, camera, *towards, medianDepth(points, camera, *towards) + behind);
}

float Object3DTracker::depthBehindVisibleSurface(std::string_view label, float visibleWidth,
                                                 float elevation) {
  const std::optional<ObjectSize> size = typicalObjectSize(label);
  if (!size || !(visibleWidth > 0) || !std::isfinite(elevation)) return kVisibleSurfaceDepth;
  // A box seen across w shows faces whose projected areas weight their depths: on average they
  // lie area / (2 w) before its middle (a disc: a quarter of pi times its radius). A box shows
  // between its short side and its diagonal.
  const float area = size->footprintArea();
  const float narrowest = size->round ? size->longSide : size->shortSide;
  const float widest = size->round ? size->longSide : std::hypot(size->longSide, size->shortSide);
  const float width = std::clamp(visibleWidth, narrowest, widest);
  const float sides = area / (2 * width);
  // Seen from above, the top takes a share t of the view, spread from the front to the back: the
  // median falls into it once t passes a half.
  const float e = std::clamp(elevation, 0.f, std::numbers::pi_v<float> / 2);
  const float top = area * std::sin(e), side = width * size->height * std::cos(e);
  const float t = top + side > 0 ? top / (top + side) : 0;
  return t <= 0.5f ? sides : sides * (1 - t) / t;
}

BoundingBox3D Object3DTracker::placeCentre(const BoundingBox3D& box, const HitPoints& hits,
                                           const Matrix4x4& worldFromCamera,
                                           std::string_view label) {
  const Vector3 camera(worldFromCamera.translation());
  const std::vector<Vector3>& points = hits.usedPoints();
  const std::optional<DetectionRays> rays =
      DetectionRays::fit(hits.points, hits.imagePoints, worldFromCamera);
  if (!rays || points.empty()) return centreBehindVisibleSurface(box, points, camera);
  const Rect& r = hits.imageRect;
  const double midX = (r.minX() + r.maxX()) / 2, midY = (r.minY() + r.maxY()) / 2;
  const Vector3 middle = rays->direction({static_cast<float>(midX), static_cast<float>(midY)});
  const float horizontal = std::hypot(middle.x, middle.z);
  if (!(horizontal >= kMinHorizontalView)) return centreBehindVisibleSurface(box, points, camera);
  const Vector3 towards(middle.x / horizontal, 0, middle.z / horizontal);
  // How wide the detection is across the view, at the depth of what it hit: the bearings of the
  // middles of its edges (its corners, on a tilted camera, reach wider than the object).
  float lo = 0, hi = 0;
  for (const auto& [x, y] : {std::pair{r.minX(), midY}, std::pair{r.maxX(), midY},
                             std::pair{midX, r.minY()}, std::pair{midX, r.maxY()}}) {
    const Vector3 d = rays->direction({static_cast<float>(x), static_cast<float>(y)});
    const float bearing =
        std::atan2(towards.z * d.x - towards.x * d.z, towards.x * d.x + towards.z * d.z);
    lo = std::min(lo, bearing), hi = std::max(hi, bearing);
  }
  const float depth = medianDepth(points, camera, towards);
  if (!(depth > 0)) return centreBehindVisibleSurface(box, points, camera);
  const float width = 2 * depth * std::tan(std::min(hi - lo, 3.f) / 2);
  const float elevation = std::atan2(camera.y - box.maxY, depth);
  return centredAt(box, camera, towards,
                   depth + depthBehindVisibleSurface(label, width, elevation));
}

TrackedObject* Object3DTracker::findClosestObject(
    const BoundingBox3D& box, const std::vector<TrackedObject*>& candidates) const {
  TrackedObject* best = nullptr;
  float bestDistance = 0;
  for (TrackedObject* o : candidates) {
    const float d = o->state.position.dist(box.center());
    if (!best || d < bestDistance) best = o, bestDistance = d;
  }
  return best;
}

TrackedObject* Object3DTracker::findStaticObjectCandidate(const BoundingBox3D& newBound,
                                                          const std::string& name) {
  // Every same-class object the box overlaps and whose centre is near enough; the nearest wins
  // (the first created among equals).
  std::vector<TrackedObject*> candidates;
  for (const auto& o : trackedObjects_) {
    if (o->objectClass != name || !overlaps3D(newBound, o->state.boundingBox)) continue;
    if (o->state.position.dist(newBound.center()) > kMaxMatchDistance) continue;
    candidates.push_back(o.get());
  }
  return findClosestObject(newBound, candidates);
}

std::vector<DetectedObject> Object3DTracker::convert2DBBoxTo3D(
    const std::vector<Prediction>& predictions, const std::vector<std::string>& classNames,
    const ArFrame& frame) {
  const std::shared_ptr<SceneGraph> sceneNow = scene();
  for (const auto& o : trackedObjects_) {
    if (o->state.confidence < TrackedObject::kConfident && o->isVisible) o->hide(sceneNow.get());
  }
  std::vector<DetectedObject> result;
  for (const Prediction& p : predictions) {
    if (p.detectedClass < 0 || static_cast<size_t>(p.detectedClass) >= classNames.size()) continue;
    HitPoints hits = getHitpointsForPrediction(p, frame);
    const BoundingBox3D rectangle = hits.getBoundingRectangle(p.score);
    const std::string& name = classNames[static_cast<size_t>(p.detectedClass)];
    const BoundingBox3D box = placeCentre(rectangle, hits, frame.camera.transform, name);
    priorHittests_.push_back(std::move(hits));
    if (priorHittests_.size() > kHitTestHistoryLimit) priorHittests_.pop_front();
    // No usable hit: the box has no position to track.
    if (box.isEmpty()) continue;
    TrackedObject* object = findStaticObjectCandidate(box, name);
    if (object) {
      object->push(box);
    } else {
      // People move: their motion verdict is fixed to moving, so weak reads always count and the
      // history stays short. Ids count up from 0 per tracker.
      std::optional<bool> override;
      if (name == "person") override = true;
      trackedObjects_.push_back(std::make_unique<TrackedObject>(nextId_++, box, name, override));
      object = trackedObjects_.back().get();
    }
    if (sceneNow && draw3DBoundingBoxes_) object->show(*sceneNow);
    if (object->state.confidence > TrackedObject::kShown) {
      result.push_back(object->toDetectedObjectForCustomer());
    }
  }
  semanticNetwork_.update(sceneNow.get(), trackedObjects_);
  return result;
}

}  // namespace omra
