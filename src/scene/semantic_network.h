// Links nearby confident tracked objects by thin purple lines: the visible form of the graph of
// spatial relations. Used only on the tracker's thread; not thread-safe.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "src/scene/scene_graph.h"
#include "src/scene/tracked_object.h"

namespace omra {

class SemanticNetwork {
 public:
  static constexpr float kMaxDistance = 1.0f;
  static constexpr double kMinConfidence = 0.75;

  // Visits unordered pairs (i < j in list order); the key is "<id i>|<id j>". Without a scene,
  // nothing is drawn and nothing is remembered.
  void update(SceneGraph* scene, const std::vector<std::unique_ptr<TrackedObject>>& objects);

  std::map<std::string, SceneNodeId> visualEdges;
};

}  // namespace omra
