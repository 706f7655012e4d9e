// The world points that the hit tests of one detection found, and the box they make. Owned by the
// tracker's thread; not thread-safe.
#pragma once

#include <vector>

#include "omrakit/geometry.h"
#include "omrakit/vector3.h"
#include "src/scene/bounding_box_3d.h"
#include "src/scene/rect.h"
#include "src/scene/scene_graph.h"

namespace omra {

class HitPoints {
 public:
  std::vector<Vector3> points;
  // Where in the (normalised) captured image each of `points` was tested, in the same order, and
  // the detection's rectangle there: together they give the ray through any point of the box.
  std::vector<Float2> imagePoints;
  Rect imageRect;
  std::vector<Vector3> filteredPoints;  // filled by getBoundingRectangle
  std::vector<SceneNodeId> visualizationNodes;
  bool USE_FILTERED_POINTS = true;

  // Points farther from the per-component median than kOutlierFactor times the median distance
  // (and at least kMinOutlierDistance) are outliers: hit tests that slipped past the object.
  static constexpr float kOutlierFactor = 3.0f;
  static constexpr float kMinOutlierDistance = 0.05f;
  // Extents are rounded up to whole centimetres and never thinner than this, so a single point
  // still makes a box a later read can overlap.
  static constexpr float kMinSpan = 0.05f;

  // The box around the (filtered) points. theta is the main horizontal direction of the points
  // (principal axis in x-z); the extents are measured along it and rounded (roundCorners). An empty
  // set gives the empty box (all zero) with the confidence.
  BoundingBox3D getBoundingRectangle(double confidence);
  // The points the last box was built from: the filtered ones, unless there are none or filtering
  // is off.
  const std::vector<Vector3>& usedPoints() const {
    return USE_FILTERED_POINTS && !filteredPoints.empty() ? filteredPoints : points;
  }

 private:
  void filter();
  static BoundingBox3D roundCorners(const std::vector<Vector3>& points, const Vector3& centroid,
                                    float theta, double confidence);
  static std::vector<Vector3> rotate(const std::vector<Vector3>& points, const Vector3& centroid,
                                     float theta);
};

// Per-component median of a set of vectors (fatal when empty).
Vector3 getMedian(const std::vector<Vector3>& vals);

}  // namespace omra
