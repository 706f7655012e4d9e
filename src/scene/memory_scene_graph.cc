#include "src/scene/memory_scene_graph.h"

namespace omra {

SceneNodeId MemorySceneGraph::add(Node n) {
  std::lock_guard<std::mutex> lock(mutex_);
  // A child of a detached parent is detached at birth.
  if (n.parent != 0 && !nodes_.count(n.parent)) return -1;
  n.id = next_++;
  nodes_[n.id] = std::move(n);
  return next_ - 1;
}

SceneNodeId MemorySceneGraph::addNode(SceneNodeId parent, const Vector3& position) {
  Node n;
  n.parent = parent;
  n.kind = Kind::kGroup;
  n.from = n.to = position;
  return add(std::move(n));
}

SceneNodeId MemorySceneGraph::addCylinder(SceneNodeId parent, const Vector3& from,
                                          const Vector3& to, float radius, const Color& color) {
  Node n;
  n.parent = parent;
  n.kind = Kind::kCylinder;
  n.from = from;
  n.to = to;
  n.radius = radius;
  n.color = color;
  return add(std::move(n));
}

SceneNodeId MemorySceneGraph::addText(SceneNodeId parent, const std::string& text,
                                      const std::string& font, float /*extrusionDepth*/,
                                      const Vector3& position, float scale, const Color& color) {
  Node n;
  n.parent = parent;
  n.kind = Kind::kText;
  n.from = n.to = position;
  n.text = text;
  n.font = font;
  n.scale = scale;
  n.color = color;
  return add(std::move(n));
}

void MemorySceneGraph::removeFromParent(SceneNodeId id) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!nodes_.erase(id)) return;
  // Children go with their parent.
  bool erased = true;
  while (erased) {
    erased = false;
    for (auto it = nodes_.begin(); it != nodes_.end();) {
      if (it->second.parent != 0 && !nodes_.count(it->second.parent)) {
        it = nodes_.erase(it);
        erased = true;
      } else {
        ++it;
      }
    }
  }
}

std::vector<MemorySceneGraph::Node> MemorySceneGraph::attachedNodes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Node> out;
  for (const auto& [id, n] : nodes_) out.push_back(n);
  return out;
}

std::optional<MemorySceneGraph::Node> MemorySceneGraph::node(SceneNodeId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = nodes_.find(id);
  if (it == nodes_.end()) return std::nullopt;
  return it->second;
}

}  // namespace omra
