#include "src/scene/tracked_object.h"

#include "src/foundation/math.h"
#include "src/scene/hit_points.h"
#include "src/scene/scene_drawing.h"

namespace omra {

TrackedObject::TrackedObject(int64_t id_, const BoundingBox3D& read, std::string name,
                             std::optional<bool> override)
    : id(id_),
      objectClass(std::move(name)),
      initialDiscoveryTime(std::chrono::system_clock::now()),
      updatedTime(initialDiscoveryTime),
      overrideIsMoving(override) {
  // The first read also starts the motion window.
  const bool moving = motionVerdict(read);
  wasMoving.push_back(moving);
  reads.push_back(read);
  state = updateState(id, reads, moving, motionAnalyzer.transVel);
}

bool TrackedObject::motionVerdict(const BoundingBox3D& read) {
  if (overrideIsMoving) return *overrideIsMoving;
  return motionAnalyzer.isPositionMoving(read.center(), kMovingThreshold);
}

bool TrackedObject::push(const BoundingBox3D& read) {
  const bool moving = motionVerdict(read);
  wasMoving.push_back(moving);
  // A settled still object ignores weak reads.
  if (!moving && state.confidence > kConfident && read.confidence < kConfident) return false;
  if (moving) {
    reads.push_back(read);
    if (reads.size() > kMovingReads) reads.erase(reads.begin(), reads.end() - kMovingReads);
  } else {
    // Checked before appending, so a still object holds 41 reads once full.
    if (reads.size() > kStillReads) reads.erase(reads.begin());
    reads.push_back(read);
  }
  updatedTime = std::chrono::system_clock::now();
  state = updateState(id, reads, moving, overrideIsMoving ? 0.f : motionAnalyzer.transVel);
  return true;
}

Vector3 TrackedObject::getMedian(const std::vector<Vector3>& vals) { return omra::getMedian(vals); }

TrackedObjectState TrackedObject::updateState(int64_t objId,
                                              const std::vector<BoundingBox3D>& reads,
                                              bool isMoving, float velocity) {
  TrackedObjectState s;
  s.id = objId;
  s.isMoving = isMoving;
  s.velocity = velocity;
  if (reads.empty()) return s;
  double sum = 0;
  std::vector<Vector3> centres, sizes;
  std::vector<float> thetas;
  for (const BoundingBox3D& r : reads) {
    sum += r.confidence;
    centres.push_back(r.center());
    sizes.push_back(r.size());
    thetas.push_back(r.theta);
  }
  static constexpr double kRamp[] = {0.5, 0.7, 0.8, 0.9};
  const size_t n = reads.size();
  s.confidence = sum / static_cast<double>(n) * (n <= 4 ? kRamp[n - 1] : 1.0);
  s.position = getMedian(centres);
  s.size = getMedian(sizes);
  s.theta = calculateMedian(thetas);
  const Vector3 half = s.size / 2.f;
  s.boundingBox = {s.position.x - half.x,
                   s.position.x + half.x,
                   s.position.y - half.y,
                   s.position.y + half.y,
                   s.position.z - half.z,
                   s.position.z + half.z,
                   s.theta,
                   s.confidence};
  return s;
}

void TrackedObject::show(SceneGraph& scene) {
  hide(&scene);
  if (state.confidence >= kConfident) {
    visualNodes = drawCubeEdges(scene, objectClass, state.confidence, state.isMoving, state.theta,
                                state.boundingBox, Color::blue());
  } else if (state.confidence > kShown) {
    visualNodes = drawCube(scene, state.boundingBox, Color::cyan(), false);
  }
  isVisible = !visualNodes.empty();
}

void TrackedObject::hide(SceneGraph* scene) {
  if (scene) {
    for (SceneNodeId n : visualNodes) scene->removeFromParent(n);
  }
  visualNodes.clear();
  isVisible = false;
}

DetectedObject TrackedObject::toDetectedObjectForCustomer() const {
  return DetectedObject(objectClass, static_cast<float>(state.confidence), state.position.convert(),
                        state.size.x, state.size.y, state.size.z, state.theta, id);
}

}  // namespace omra
