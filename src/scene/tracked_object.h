// One object the tracker follows: its recent 3D reads, a smoothed state and its debug drawing.
// Owned by the tracker and used only on the tracker's thread; not thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/detected_object.h"
#include "src/scene/bounding_box_3d.h"
#include "src/scene/motion_analyzer.h"
#include "src/scene/scene_graph.h"

namespace omra {

struct TrackedObjectState {
  int64_t id = 0;
  Vector3 position;  // box centre
  float theta = 0;
  Vector3 size;
  double confidence = 0;
  BoundingBox3D boundingBox;
  bool isMoving = false;
  float velocity = 0;
};

class TrackedObject {
 public:
  static constexpr float kMovingThreshold = 0.03f;  // metres per read, mean over the window
  static constexpr size_t kMovingReads = 20;
  static constexpr size_t kStillReads = 40;
  static constexpr double kConfident = 0.75;
  static constexpr double kShown = 0.4;

  TrackedObject(int64_t id, const BoundingBox3D& read, std::string name,
                std::optional<bool> overrideIsMoving);

  // Adds a read (see the rules in the .cc); false when the gate ignored it.
  bool push(const BoundingBox3D& read);
  // Redraws the object by its confidence: labelled blue box when confident, plain cyan box when
  // shown, nothing otherwise.
  void show(SceneGraph& scene);
  void hide(SceneGraph* scene);
  DetectedObject toDetectedObjectForCustomer() const;

  // The estimate from the reads: medians of centres, sizes and headings; confidence is the mean
  // read confidence scaled by how many reads back it (x0.5, 0.7, 0.8, 0.9, then 1).
  static TrackedObjectState updateState(int64_t objId, const std::vector<BoundingBox3D>& reads,
                                        bool isMoving, float velocity);
  static Vector3 getMedian(const std::vector<Vector3>& vals);

  int64_t id;
  std::string objectClass;
  std::chrono::system_clock::time_point initialDiscoveryTime;
  std::chrono::system_clock::time_point updatedTime;
  bool isVisible = false;
  std::vector<SceneNodeId> visualNodes;
  std::vector<BoundingBox3D> reads;  // oldest first
  TrackedObjectState state;
  std::vector<bool> wasMoving;
  MotionAnalyzer motionAnalyzer;
  std::optional<bool> overrideIsMoving;

 private:
  bool motionVerdict(const BoundingBox3D& read);
};

}  // namespace omra
