// A small scene-graph interface for debug drawing (nodes, cylinders, text labels, parent/remove),
// standing in for the platform's 3D scene. Implementations must be thread-safe: the tracker draws
// from its queue while a host may read.
#pragma once

#include <cstdint>
#include <string>

#include "omrakit/vector3.h"

namespace omra {

using SceneNodeId = int64_t;

struct Color {
  float r = 0, g = 0, b = 0, a = 1;
  bool operator==(const Color&) const = default;
  static constexpr Color purple() { return {0.5f, 0, 0.5f, 1}; }
  static constexpr Color blue() { return {0, 0, 1, 1}; }
  static constexpr Color cyan() { return {0, 1, 1, 1}; }
  static constexpr Color red() { return {1, 0, 0, 1}; }
};

class SceneGraph {
 public:
  virtual ~SceneGraph() = default;
  virtual SceneNodeId rootNode() = 0;
  // An empty node at position (a group), under parent.
  virtual SceneNodeId addNode(SceneNodeId parent, const Vector3& position) = 0;
  // A cylinder of radius from one point to another, under parent.
  virtual SceneNodeId addCylinder(SceneNodeId parent, const Vector3& from, const Vector3& to,
                                  float radius, const Color& color) = 0;
  // Extruded text at position, scaled down to scene size, turned to face the camera.
  virtual SceneNodeId addText(SceneNodeId parent, const std::string& text, const std::string& font,
                              float extrusionDepth, const Vector3& position, float scale,
                              const Color& color) = 0;
  // Detaches the node (and its children) from the scene; unknown ids are ignored.
  virtual void removeFromParent(SceneNodeId node) = 0;
};

}  // namespace omra
