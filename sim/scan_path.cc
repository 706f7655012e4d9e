#include "sim/scan_path.h"

#include <cmath>
#include <random>

namespace omra::sim {

ScanPath::ScanPath(const Room& room, uint64_t seed) {
  std::mt19937_64 rng(seed ^ 0x5ca9a7b1d3e1f00dULL);
  std::uniform_real_distribution<double> angle(0, 2 * M_PI);
  a_ = 0.85 * room.walkA;
  b_ = 0.85 * room.walkB;
  constexpr double kWalkingSpeed = 0.35;  // m/s: a slow scan
  omega_ = kWalkingSpeed / (0.5 * (a_ + b_));
  if (std::uniform_int_distribution<int>(0, 1)(rng) == 1) omega_ = -omega_;
  start_ = angle(rng);
  for (double& p : phases_) p = angle(rng);
  sweep_ = std::uniform_real_distribution<double>(0.75, 1.0)(rng);
}

CameraPose ScanPath::pose(double t) const {
  auto wave = [&](int i, double period, double amplitude) {
    return amplitude * std::sin(2 * M_PI * t / period + phases_[i]);
  };
  double alpha = start_ + omega_ * t;
  CameraPose p;
  p.position = {a_ * std::cos(alpha) + wave(0, 3.1, 0.03), 1.45 + wave(1, 4.3, 0.04),
                b_ * std::sin(alpha) + wave(2, 2.7, 0.03)};
  // Outwards from the loop's centre, then the look-around sweep.
  double outward = std::atan2(-std::cos(alpha), -std::sin(alpha));
  p.yaw = wrapAngle(outward + wave(3, 7.0, sweep_) + wave(4, 2.3, 0.15));
  p.pitch = -0.32 + wave(5, 5.3, 0.14) + wave(6, 1.3, 0.02);
  p.roll = wave(7, 1.7, 0.03) + wave(8, 0.9, 0.015);
  p.rotation = rotationFromEuler(p.pitch, p.yaw, p.roll);
  return p;
}

}  // namespace omra::sim
