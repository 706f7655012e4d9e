#include "src/scene/semantic_network.h"

#include "src/scene/scene_drawing.h"

namespace omra {

void SemanticNetwork::update(SceneGraph* scene,
                             const std::vector<std::unique_ptr<TrackedObject>>& objects) {
  if (!scene) return;
  for (size_t i = 0; i < objects.size(); ++i) {
    for (size_t j = i + 1; j < objects.size(); ++j) {
      const TrackedObject& a = *objects[i];
      const TrackedObject& b = *objects[j];
      const float distance = a.state.position.dist(b.state.position);
      const bool linked = a.isVisible && b.isVisible && a.state.confidence >= kMinConfidence &&
                          b.state.confidence >= kMinConfidence && distance <= kMaxDistance;
      const std::string key = std::to_string(a.id) + "|" + std::to_string(b.id);
      auto it = visualEdges.find(key);
      if (it != visualEdges.end()) {
        scene->removeFromParent(it->second);
        visualEdges.erase(it);
      }
      if (linked) {
        visualEdges[key] =
            drawLine(*scene, a.state.position, b.state.position, kLinkRadius, Color::purple());
      }
    }
  }
}

}  // namespace omra
