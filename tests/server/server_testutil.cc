#include "tests/server/server_testutil.h"

#include <cmath>

namespace omra::server::testing {

std::vector<Landmark> makeRoom(int n, int labelCount, uint64_t seed) {
  static const char* kLabels[] = {"chair", "table", "tv",   "couch", "bottle", "cup",
                                  "book",  "clock", "vase", "plant", "laptop", "bed"};
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> xz(-3, 3), y(0, 2);
  std::vector<Landmark> out;
  for (int i = 0; i < n; ++i) {
    const int label = static_cast<int>(rng() % static_cast<uint64_t>(labelCount));
    std::string name = kLabels[label % 12];
    if (label >= 12) name += std::to_string(label / 12);
    out.push_back({i + 1, name, {xz(rng), y(rng), xz(rng)}});
  }
  return out;
}

std::vector<Landmark> seenFrom(const std::vector<Landmark>& map, const Pose4& pose, double noise,
                               uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> n(0, noise > 0 ? noise : 1);
  std::vector<Landmark> out;
  for (const Landmark& l : map) {
    Vec3 p = pose.apply(l.position);
    if (noise > 0) {
      for (double& c : p) c += n(rng);
    }
    out.push_back({l.objectId + 1000, l.label, p});
  }
  return out;
}

Mat4 cameraPose(const Vec3& p, double yaw, double pitch) {
  const double cy = std::cos(yaw), sy = std::sin(yaw), cp = std::cos(pitch), sp = std::sin(pitch);
  // R = Ry(yaw) * Rx(pitch)
  return {cy, sy * sp, sy * cp, p[0], 0, cp, -sp, p[1], -sy, cy * sp, cy * cp, p[2], 0, 0, 0, 1};
}

Mat4 toMat4(const Pose4& pose) { return cameraPose({pose.tx, pose.ty, pose.tz}, pose.theta, 0); }

std::vector<PosedFeatures> makeFrames(int n, int dim, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1), xz(-3, 3), yaw(-3.1, 3.1), pitch(-0.4, 0.4);
  std::vector<PosedFeatures> out;
  for (int i = 0; i < n; ++i) {
    PosedFeatures f;
    f.frameId = i * 3;
    f.cameraPose = cameraPose({xz(rng), 1.4 + 0.1 * u(rng), xz(rng)}, yaw(rng), pitch(rng));
    for (int k = 0; k < dim; ++k) f.features.push_back(static_cast<float>(u(rng)));
    out.push_back(std::move(f));
  }
  return out;
}

std::vector<PosedFeatures> reseen(const std::vector<PosedFeatures>& map, const Pose4& pose,
                                  double featureNoise, double wrongShare, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> n(0, featureNoise > 0 ? featureNoise : 1);
  std::uniform_real_distribution<double> u(-1, 1);
  const int every = wrongShare > 0 ? static_cast<int>(std::lround(1 / wrongShare)) : 0;
  const Mat4 t = toMat4(pose);
  std::vector<PosedFeatures> out;
  for (size_t i = 0; i < map.size(); ++i) {
    PosedFeatures f = map[i];
    f.frameId = static_cast<int64_t>(i);
    f.cameraPose = multiply(t, map[i].cameraPose);
    const bool wrong = every > 0 && i % static_cast<size_t>(every) == 0;
    for (float& x : f.features) {
      if (wrong) {
        x = static_cast<float>(u(rng));
      } else if (featureNoise > 0) {
        x += static_cast<float>(n(rng));
      }
    }
    out.push_back(std::move(f));
  }
  return out;
}

}  // namespace omra::server::testing
