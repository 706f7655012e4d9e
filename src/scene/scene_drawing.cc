#include "src/scene/scene_drawing.h"

#include <cstdio>

namespace omra {
namespace {

constexpr int kEdges[12][2] = {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6},
                               {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}};

std::vector<SceneNodeId> edges(SceneGraph& scene, const BoundingBox3D& box, const Color& color) {
  const auto v = box.getCubeVertices(false);
  std::vector<SceneNodeId> nodes;
  for (const auto& e : kEdges)
    nodes.push_back(drawLine(scene, v[e[0]], v[e[1]], kEdgeRadius, color));
  return nodes;
}

Vector3 labelPosition(const BoundingBox3D& box) {
  const Vector3 c = box.center();
  return {c.x, box.maxY + kLabelLift, c.z};
}

}  // namespace

SceneNodeId drawLine(SceneGraph& scene, const Vector3& a, const Vector3& b, float radius,
                     const Color& color) {
  return scene.addCylinder(scene.rootNode(), a, b, radius, color);
}

SceneNodeId buildSCNTextNode(SceneGraph& scene, const std::string& text, const Vector3& position,
                             const Color& color) {
  return scene.addText(scene.rootNode(), text, "Arial", kLabelDepth, position, kLabelScale, color);
}

std::vector<SceneNodeId> drawCube(SceneGraph& scene, const BoundingBox3D& box, const Color& color,
                                  bool debug) {
  std::vector<SceneNodeId> nodes = edges(scene, box, color);
  if (debug) {
    char text[32];
    std::snprintf(text, sizeof text, "(%5.3f)", box.confidence);
    nodes.push_back(buildSCNTextNode(scene, text, labelPosition(box), color));
  }
  return nodes;
}

std::vector<SceneNodeId> drawCubeEdges(SceneGraph& scene, const std::string& label,
                                       double confidence, bool moving, float theta,
                                       const BoundingBox3D& box, const Color& color) {
  BoundingBox3D turned = box;
  turned.theta = theta;
  std::vector<SceneNodeId> nodes = edges(scene, turned, color);
  char conf[32];
  std::snprintf(conf, sizeof conf, " (%.2f)", confidence);
  std::string text = label + conf;
  if (moving) text += " moving";
  nodes.push_back(buildSCNTextNode(scene, text, labelPosition(box), color));
  return nodes;
}

}  // namespace omra
