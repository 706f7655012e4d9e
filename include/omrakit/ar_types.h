// What a host hands the kit from its AR platform: frames, anchors and plane anchors.
//
// These are plain values that the host fills on its frame thread and gives away; the kit copies what
// it keeps. Coordinates are the AR session's world frame (see geometry.h). The hit-test function is
// called by the kit on its own queues, so it must be safe to call from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "omrakit/geometry.h"
#include "omrakit/pixel_buffer.h"

namespace omra {

// The AR platform version the host runs; features of "11.3 or later" read it.
struct ArPlatformVersion {
  int major = 13;
  int minor = 0;
  bool atLeast(int maj, int min) const { return major > maj || (major == maj && minor >= min); }
};

struct ArCamera {
  Matrix4x4 transform;  // world_from_camera
  Float3 eulerAngles;   // radians: x pitch, y yaw, z roll
};

// Raw feature points of one frame with their stable identifiers (parallel arrays).
struct ArPointCloud {
  std::vector<Float3> points;
  std::vector<uint64_t> identifiers;
};

// Hit-test result types, with the platform's raw values.
enum class HitTestType : int32_t { kFeaturePoint = 1 };

struct HitTestResult {
  Matrix4x4 worldTransform;  // world_from_hit; translation is the hit point
  float distance = 0;        // metres from the camera
};

// Normalized image point (0..1, origin top-left of the captured image) -> hits, nearest first.
using HitTestFunction = std::function<std::vector<HitTestResult>(Float2 point, HitTestType type)>;

struct ArFrame {
  double timestamp = 0;  // seconds, monotonic as the AR platform gives it
  ArCamera camera;
  PixelBuffer capturedImage;
  std::optional<ArPointCloud> rawFeaturePoints;
  HitTestFunction hitTest;  // may be empty: no hits
};

enum class PlaneAlignment : int32_t { kHorizontal = 0, kVertical = 1 };

struct ArAnchor {
  std::string identifier;  // the platform's UUID text
  Matrix4x4 transform;     // world_from_anchor
};

struct ArPlaneAnchor : ArAnchor {
  PlaneAlignment alignment = PlaneAlignment::kHorizontal;
  Float3 center;  // in the anchor's frame
  Float3 extent;
  std::optional<std::vector<Float3>> boundaryVertices;  // anchor frame; AR platform 11.3 or later
};

// An anchor of either kind, as the AR session's anchor events hand over mixed lists.
using AnyArAnchor = std::variant<ArAnchor, ArPlaneAnchor>;

}  // namespace omra
