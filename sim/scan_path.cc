#include "sim/scan_path.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace omra::sim {
namespace {

constexpr double kWalkingSpeed = 0.35;  // m/s: a slow scan
constexpr double kCellTurns = 1.5;      // loops per room on a walk through several

double loopLength(double a, double b) { return M_PI * (a + b); }

}  // namespace

ScanPath::ScanPath(const Room& room, uint64_t seed, const PathShape& shape) : shape_(shape) {
  std::mt19937_64 rng(seed ^ 0x5ca9a7b1d3e1f00dULL);
  std::uniform_real_distribution<double> angle(0, 2 * M_PI);
  a_ = shape.radiusScale * room.walkA;
  b_ = shape.radiusScale * room.walkB;
  speed_ = kWalkingSpeed;
  omega_ = kWalkingSpeed / (0.5 * (a_ + b_));
  if (std::uniform_int_distribution<int>(0, 1)(rng) == 1) omega_ = -omega_;
  start_ = angle(rng);
  for (double& p : phases_) p = angle(rng);
  sweep_ = std::uniform_real_distribution<double>(0.75, 1.0)(rng);
  if (!shape.randomStart) start_ = shape.startAngle;
}

double ScanPath::routeSeconds() const {
  if (shape_.cells.empty()) return 0;
  double metres = 0;
  for (size_t k = 0; k < shape_.cells.size(); ++k) {
    const PathCell& c = shape_.cells[k];
    const double a = shape_.radiusScale * c.walkA, b = shape_.radiusScale * c.walkB;
    metres += kCellTurns * loopLength(a, b);
    if (k + 1 < shape_.cells.size()) {
      const PathCell& n = shape_.cells[k + 1];
      metres += (n.centerX - shape_.radiusScale * n.walkA) - (c.centerX + a);
    }
  }
  return metres / speed_;
}

void ScanPath::base(double t, Vec3* position, double* outward) const {
  if (shape_.cells.empty()) {
    double alpha = start_ + omega_ * t;
    if (shape_.arcFraction < 1) {
      // Back and forth: a triangle wave over the arc.
      const double arc = std::max(shape_.arcFraction, 0.05) * 2 * M_PI;
      const double period = 2 * arc / std::fabs(omega_);
      double phase = std::fmod(t, period) / period;
      double along = phase < 0.5 ? 2 * phase : 2 - 2 * phase;
      alpha = start_ + std::copysign(1.0, omega_) * arc * along;
    }
    *position = {a_ * std::cos(alpha), shape_.height, b_ * std::sin(alpha)};
    *outward = std::atan2(-std::cos(alpha), -std::sin(alpha));
    return;
  }
  // Room after room along +x: 1.5 loops in each, then east through the doorway to the next.
  double metres = std::max(t, 0.0) * speed_;
  for (size_t k = 0; k < shape_.cells.size(); ++k) {
    const PathCell& c = shape_.cells[k];
    const double a = shape_.radiusScale * c.walkA, b = shape_.radiusScale * c.walkB;
    const double loop = kCellTurns * loopLength(a, b);
    const bool last = k + 1 == shape_.cells.size();
    if (metres <= loop || last) {
      // From the west point (angle pi) round by 1.5 turns to the east point (angle 0).
      double alpha = M_PI + 2 * M_PI * (metres / loopLength(a, b));
      *position = {c.centerX + a * std::cos(alpha), shape_.height, b * std::sin(alpha)};
      *outward = std::atan2(-std::cos(alpha), -std::sin(alpha));
      return;
    }
    metres -= loop;
    const PathCell& n = shape_.cells[k + 1];
    const double from = c.centerX + a, to = n.centerX - shape_.radiusScale * n.walkA;
    if (metres <= to - from) {
      *position = {from + metres, shape_.height, 0};
      *outward = std::atan2(-1.0, 0.0);  // looking where it goes, along +x
      return;
    }
    metres -= to - from;
  }
}

CameraPose ScanPath::pose(double t) const {
  auto wave = [&](int i, double period, double amplitude) {
    return amplitude * std::sin(2 * M_PI * t / period + phases_[i]);
  };
  Vec3 at;
  double outward = 0;
  base(t, &at, &outward);
  CameraPose p;
  p.position = {at.x + wave(0, 3.1, 0.03), at.y + wave(1, 4.3, 0.04), at.z + wave(2, 2.7, 0.03)};
  // Outwards from the loop's centre, then the look-around sweep.
  p.yaw = wrapAngle(outward + wave(3, 7.0, sweep_) + wave(4, 2.3, 0.15));
  p.pitch = -0.32 + wave(5, 5.3, 0.14) + wave(6, 1.3, 0.02);
  p.roll = wave(7, 1.7, 0.03) + wave(8, 0.9, 0.015);
  p.rotation = rotationFromEuler(p.pitch, p.yaw, p.roll);
  return p;
}

}  // namespace omra::sim
