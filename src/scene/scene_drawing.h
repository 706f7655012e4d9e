// Debug drawing of boxes, labels and lines into a SceneGraph. Functions; they touch only the scene
// they are given (whose implementation is thread-safe).
#pragma once

#include <string>
#include <vector>

#include "src/scene/bounding_box_3d.h"
#include "src/scene/scene_graph.h"

namespace omra {

inline constexpr float kEdgeRadius = 0.002f;  // box edges
inline constexpr float kLinkRadius = 0.001f;  // semantic links
inline constexpr float kLabelScale = 0.002f;  // text units to metres
inline constexpr float kLabelDepth = 0.1f;    // text extrusion, in text units
inline constexpr float kLabelLift = 0.05f;    // label above the box top, metres

// A cylinder from a to b under the scene's root.
SceneNodeId drawLine(SceneGraph& scene, const Vector3& a, const Vector3& b, float radius,
                     const Color& color);
// A camera-facing text label in "Arial" at position.
SceneNodeId buildSCNTextNode(SceneGraph& scene, const std::string& text, const Vector3& position,
                             const Color& color);
// The twelve edges of the (turned) box; with debug also its confidence as "(%5.3f) " label.
std::vector<SceneNodeId> drawCube(SceneGraph& scene, const BoundingBox3D& box, const Color& color,
                                  bool debug);
// The edges plus a label "<name> (<confidence %.2f>)", with " moving" for moving objects; theta
// overrides the box's own heading.
std::vector<SceneNodeId> drawCubeEdges(SceneGraph& scene, const std::string& label,
                                       double confidence, bool moving, float theta,
                                       const BoundingBox3D& box, const Color& color);

}  // namespace omra
