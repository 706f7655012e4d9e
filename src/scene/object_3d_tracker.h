// Lifts 2D detections into 3D boxes by hit-testing the AR scene, associates them with tracked
// objects and reports the confident ones.
//
// Owned by the pipeline. convert2DBBoxTo3D and the object list are used from one thread at a time
// (the detector's completion); setScene, setDrawBoundingBoxes and setDeviceOrientationReading are
// thread-safe.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/ar_types.h"
#include "omrakit/detected_object.h"
#include "omrakit/platform/device_info.h"
#include "src/scene/hit_points.h"
#include "src/scene/prediction.h"
#include "src/scene/semantic_network.h"
#include "src/scene/tracked_object.h"

namespace omra {

inline constexpr size_t kHitTestHistoryLimit = 20;

class Object3DTracker {
 public:
  static constexpr float kMinHitDistance = 0.3f;  // metres from the camera
  static constexpr float kMaxMatchDistance = 0.4f;
  static constexpr int kGridSteps = 5;
  // How far an object's centre lies behind the surfaces the camera sees of it, when its label has
  // no typical size: about half the depth of the things a phone's detector finds.
  static constexpr float kVisibleSurfaceDepth = 0.10f;
  // Below this horizontal distance the view is from above: no direction to move the centre in.
  static constexpr float kMinHorizontalView = 0.05f;

  // device supplies the host's supported interface orientations; null: it declares none.
  Object3DTracker(double screenHeight, double screenWidth,
                  std::shared_ptr<DeviceInfo> device = nullptr);

  // The frame's detections as 3D objects: one entry per prediction whose object is confident
  // enough (above 0.4). Not thread-safe.
  std::vector<DetectedObject> convert2DBBoxTo3D(const std::vector<Prediction>& predictions,
                                                const std::vector<std::string>& classNames,
                                                const ArFrame& frame);

  // Thread-safe.
  void setScene(std::shared_ptr<SceneGraph> scene);
  std::shared_ptr<SceneGraph> scene() const;
  void setDrawBoundingBoxes(bool draw) { draw3DBoundingBoxes_ = draw; }
  // The device's orientation code as the platform reports it, given the roll-derived orientation.
  // By default the device agrees with the roll (Linux hosts have no orientation sensor).
  void setDeviceOrientationReading(std::function<int(phoneOrientation)> reading);

  const std::vector<std::unique_ptr<TrackedObject>>& trackedObjects() const {
    return trackedObjects_;
  }
  const std::deque<HitPoints>& priorHittests() const { return priorHittests_; }
  SemanticNetwork& semanticNetwork() { return semanticNetwork_; }

  // The world points the hit tests inside one prediction's box found.
  HitPoints getHitpointsForPrediction(const Prediction& prediction, const ArFrame& frame);
  // The box moved so that its horizontal centre sits `behind` the median depth of the points,
  // seen from camera, on the horizontal line `towards` (unit; by default the line through the
  // points' median); height and extents stay. The hit tests behind a box's edges reach the floor,
  // the table or the wall around the object, so the middle of the points' extents follows
  // whatever surrounds it; the median depth stays on the object. The box unchanged when points is
  // empty or the camera stands above the points.
  static BoundingBox3D centreBehindVisibleSurface(const BoundingBox3D& box,
                                                  const std::vector<Vector3>& points,
                                                  const Vector3& camera,
                                                  std::optional<Vector3> towards = std::nullopt,
                                                  float behind = kVisibleSurfaceDepth);
  // The box of one detection with its centre where the object's middle most likely is: on the ray
  // through the middle of the detection (the hit grid leans to one corner of it), behind the
  // visible surface by what a typical object of the label shows from there.
  static BoundingBox3D placeCentre(const BoundingBox3D& box, const HitPoints& hits,
                                   const Matrix4x4& worldFromCamera, std::string_view label);
  // How far the middle of a typical object of this label lies behind the median depth of what a
  // camera sees of it, seen visibleWidth across (metres) from elevation radians above its top:
  // the faces turned to the camera lie nearer the larger the object's footprint is against the
  // width it shows, and a top seen from above reaches back to the middle and beyond.
  // kVisibleSurfaceDepth for a label of no known size.
  static float depthBehindVisibleSurface(std::string_view label, float visibleWidth,
                                         float elevation);
  // A screen rectangle (from OrientedBoundingBox's conversions) back in normalised captured-image
  // coordinates: undoes the screen offset and scale, then the detector's centre crop.
  static Rect convertViewCoordToNormalizedImage(const Rect& rect, phoneOrientation orientation,
                                                double screenHeight, double screenWidth,
                                                int imageWidth, int imageHeight);

  const double screenHeight;
  const double screenWidth;

 private:
  TrackedObject* findClosestObject(const BoundingBox3D& box,
                                   const std::vector<TrackedObject*>& candidates) const;
  TrackedObject* findStaticObjectCandidate(const BoundingBox3D& newBound, const std::string& name);

  std::vector<std::unique_ptr<TrackedObject>> trackedObjects_;
  SemanticNetwork semanticNetwork_;
  std::deque<HitPoints> priorHittests_;
  int64_t nextId_ = 0;
  const std::shared_ptr<DeviceInfo> device_;

  mutable std::mutex mutex_;
  std::shared_ptr<SceneGraph> scene_;                   // guarded by mutex_
  std::function<int(phoneOrientation)> deviceReading_;  // guarded by mutex_
  std::atomic<bool> draw3DBoundingBoxes_{true};
};

}  // namespace omra
