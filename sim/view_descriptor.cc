#include "sim/view_descriptor.h"

#include <cmath>

namespace omra::sim {
namespace {

// Four decimals: plenty for matching, and a recording stores them exactly.
constexpr double kHeadingWeight = 2.0;

float quantize(double v) { return static_cast<float>(std::round(v * 1e4) / 1e4); }

}  // namespace

ActivationData viewDescriptor(const Room& room, const CameraModel& camera, const CameraPose& pose) {
  ActivationData out;
  out.shape = {1, kDescriptorRaysX * kDescriptorRaysY, kDescriptorFeatures};
  out.values.reserve(
      static_cast<size_t>(kDescriptorRaysX * kDescriptorRaysY * kDescriptorFeatures));
  for (int r = 0; r < kDescriptorRaysY; ++r) {
    for (int c = 0; c < kDescriptorRaysX; ++c) {
      auto [u, v] = camera.modelToImage((c + 0.5) / kDescriptorRaysX, (r + 0.5) / kDescriptorRaysY);
      Vec3 dir = pose.rotation * camera.rayThroughImagePoint(u, v);
      RayHit hit = room.castRay(pose.position, dir);
      const double q[3] = {(hit.point.x + room.width / 2) / room.width, hit.point.y / room.height,
                           (hit.point.z + room.depth / 2) / room.depth};
      for (double axis : q) {
        for (double freq : {1.0, 2.0, 4.0}) {
          out.values.push_back(quantize(std::sin(2 * M_PI * freq * axis)));
          out.values.push_back(quantize(std::cos(2 * M_PI * freq * axis)));
        }
      }
      // Which way the ray looks, so that the same spot seen from elsewhere differs.
      double heading = std::atan2(dir.x, dir.z);
      for (double freq : {1.0, 2.0, 4.0}) {
        out.values.push_back(quantize(kHeadingWeight * std::sin(freq * heading)));
        out.values.push_back(quantize(kHeadingWeight * std::cos(freq * heading)));
      }
    }
  }
  return out;
}

double cosineSimilarity(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size() || a.empty()) return 0;
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    ab += double{a[i]} * b[i];
    aa += double{a[i]} * a[i];
    bb += double{b[i]} * b[i];
  }
  return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0;
}

}  // namespace omra::sim
