#include "server/localizers/plane_refiner.h"

#include <cmath>
#include <numbers>

namespace omra::server {
namespace {

double dot(const Vec3& a, const Vec3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
Vec3 sub(const Vec3& a, const Vec3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Vec3 rotate(double theta, const Vec3& v) { return Pose4{0, 0, 0, theta}.apply(v); }

struct WallPair {
  const PlaneObservation* map;
  const PlaneObservation* session;
};

// Pairs each session plane with the map plane that the transform lays closest onto it.
std::vector<WallPair> pairWalls(const Pose4& pose, const std::vector<PlaneObservation>& map,
                                const std::vector<PlaneObservation>& session,
                                const PlaneRefinerOptions& o) {
  const double minCos = std::cos(o.maxHeadingDegrees * std::numbers::pi / 180);
  std::vector<WallPair> pairs;
  for (const PlaneObservation& s : session) {
    if (!s.vertical) continue;
    const PlaneObservation* best = nullptr;
    double bestOffset = o.maxOffset;
    for (const PlaneObservation& m : map) {
      if (!m.vertical) continue;
      if (dot(rotate(pose.theta, m.normal), s.normal) < minCos) continue;
      const double offset = std::fabs(dot(sub(pose.apply(m.origin), s.origin), s.normal));
      if (offset < bestOffset) bestOffset = offset, best = &m;
    }
    if (best) pairs.push_back({best, &s});
  }
  return pairs;
}

}  // namespace

std::optional<double> manhattanHeading(const std::vector<PlaneObservation>& planes,
                                       double maxSpread) {
  double sinSum = 0, cosSum = 0;
  std::vector<double> headings;
  for (const PlaneObservation& p : planes) {
    if (!p.vertical) continue;
    headings.push_back(heading(p.normal));
    sinSum += std::sin(4 * headings.back());
    cosSum += std::cos(4 * headings.back());
  }
  if (headings.empty()) return std::nullopt;
  const double mean = std::atan2(sinSum, cosSum) / 4;
  for (double h : headings) {
    if (std::fabs(wrapAngle(4 * (h - mean))) / 4 > maxSpread) return std::nullopt;
  }
  return mean;
}

bool PlaneRefiner::canFix(const std::vector<PlaneObservation>& planes) const {
  for (const PlaneObservation& a : planes) {
    for (const PlaneObservation& b : planes) {
      if (!a.vertical || !b.vertical) continue;
      const double cross = std::fabs(a.normal[0] * b.normal[2] - a.normal[2] * b.normal[0]);
      if (cross >= options_.minCrossSine) return true;
    }
  }
  return false;
}

std::optional<PlaneRefinement> PlaneRefiner::refine(
    const Pose4& rough, const std::vector<PlaneObservation>& map,
    const std::vector<PlaneObservation>& session) const {
  std::vector<WallPair> walls = pairWalls(rough, map, session, options_);
  if (walls.empty()) return std::nullopt;

  // Heading: the mean turn that lays the paired map normals onto the session's.
  double sinSum = 0, cosSum = 0;
  for (const WallPair& p : walls) {
    const double turn = wrapAngle(heading(p.session->normal) - heading(p.map->normal));
    sinSum += std::sin(turn);
    cosSum += std::cos(turn);
  }
  PlaneRefinement out;
  out.transform = rough;
  out.transform.theta = std::atan2(sinSum, cosSum);
  // Each wall's estimate is a little off. When both sessions' walls meet at right angles, every
  // wall of each session, paired or not, helps to fix the turn: averaged errors shrink.
  const double spread = options_.manhattanSpreadDegrees * std::numbers::pi / 180;
  const std::optional<double> mapFrame = manhattanHeading(map, spread);
  const std::optional<double> sessionFrame = manhattanHeading(session, spread);
  if (spread > 0 && mapFrame && sessionFrame) {
    const double quarter = std::numbers::pi / 2;
    const double turn = *sessionFrame - *mapFrame;
    // The quarter turns come from the paired walls.
    const double k = std::round(wrapAngle(out.transform.theta - turn) / quarter);
    out.transform.theta = wrapAngle(turn + k * quarter);
    out.manhattan = true;
  }
  if (std::fabs(wrapAngle(out.transform.theta - rough.theta)) >
      options_.maxHeadingDegrees * std::numbers::pi / 180) {
    return std::nullopt;
  }
  // With the heading fixed the pairing may change; pair again before solving the translation.
  walls = pairWalls(out.transform, map, session, options_);
  if (walls.empty()) return std::nullopt;
  out.walls = static_cast<int>(walls.size());

  // Horizontal translation: n . t = n . (s - R m) for every pair, least squares in (tx, tz).
  // Where the walls leave a direction open, the rough translation holds it.
  const double theta = out.transform.theta;
  double a00 = 0, a01 = 0, a11 = 0, b0 = 0, b1 = 0;
  for (const WallPair& p : walls) {
    const Vec3& n = p.session->normal;
    const double nx = n[0], nz = n[2];
    const double len = std::hypot(nx, nz);
    if (len < 1e-6) continue;
    const double ux = nx / len, uz = nz / len;
    const Vec3 moved = rotate(theta, p.map->origin);
    const double d =
        ux * (p.session->origin[0] - moved[0]) + uz * (p.session->origin[2] - moved[2]);
    a00 += ux * ux;
    a01 += ux * uz;
    a11 += uz * uz;
    b0 += ux * d;
    b1 += uz * d;
  }
  const double det = a00 * a11 - a01 * a01;
  const double n = static_cast<double>(walls.size());
  if (det > options_.minCrossSine * options_.minCrossSine * n * n / 4) {
    out.transform.tx = (a11 * b0 - a01 * b1) / det;
    out.transform.tz = (a00 * b1 - a01 * b0) / det;
    out.bothWays = true;
  } else {
    // One direction only (parallel walls): move the rough translation along it.
    const double phi = 0.5 * std::atan2(2 * a01, a00 - a11);
    const double ux = std::cos(phi), uz = std::sin(phi);
    const double weight = ux * ux * a00 + 2 * ux * uz * a01 + uz * uz * a11;
    const double target = (ux * b0 + uz * b1) / weight;
    const double current = ux * rough.tx + uz * rough.tz;
    out.transform.tx = rough.tx + ux * (target - current);
    out.transform.tz = rough.tz + uz * (target - current);
  }
  if (std::hypot(out.transform.tx - rough.tx, out.transform.tz - rough.tz) > options_.maxOffset) {
    return std::nullopt;
  }

  // Height: horizontal planes (floor, table tops) that the transform lays within reach.
  double heightSum = 0;
  for (const PlaneObservation& s : session) {
    if (s.vertical) continue;
    const PlaneObservation* best = nullptr;
    double bestOffset = options_.maxHeightOffset;
    for (const PlaneObservation& m : map) {
      if (m.vertical) continue;
      const double offset = std::fabs(out.transform.apply(m.origin)[1] - s.origin[1]);
      if (offset < bestOffset) bestOffset = offset, best = &m;
    }
    if (!best) continue;
    heightSum += s.origin[1] - best->origin[1];
    ++out.horizontal;
  }
  if (out.horizontal > 0) out.transform.ty = heightSum / out.horizontal;
  return out;
}

}  // namespace omra::server
