// A scene graph held in memory, for tests and headless runs. Thread-safe (one mutex).
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "src/scene/scene_graph.h"

namespace omra {

class MemorySceneGraph : public SceneGraph {
 public:
  enum class Kind { kRoot, kGroup, kCylinder, kText };
  struct Node {
    SceneNodeId id = 0;
    SceneNodeId parent = -1;
    Kind kind = Kind::kGroup;
    Vector3 from, to;  // cylinder ends; position for groups and text
    float radius = 0, scale = 0;
    std::string text, font;
    Color color;
  };

  SceneNodeId rootNode() override { return 0; }
  SceneNodeId addNode(SceneNodeId parent, const Vector3& position) override;
  SceneNodeId addCylinder(SceneNodeId parent, const Vector3& from, const Vector3& to, float radius,
                          const Color& color) override;
  SceneNodeId addText(SceneNodeId parent, const std::string& text, const std::string& font,
                      float extrusionDepth, const Vector3& position, float scale,
                      const Color& color) override;
  void removeFromParent(SceneNodeId node) override;

  // Nodes attached to the scene (reachable from the root), in creation order. Thread-safe.
  std::vector<Node> attachedNodes() const;
  std::optional<Node> node(SceneNodeId id) const;  // attached only

 private:
  SceneNodeId add(Node n);

  mutable std::mutex mutex_;
  std::map<SceneNodeId, Node> nodes_;  // guarded by mutex_; detached nodes are erased
  SceneNodeId next_ = 1;               // guarded by mutex_
};

}  // namespace omra
