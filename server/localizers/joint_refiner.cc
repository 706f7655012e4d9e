#include "server/localizers/joint_refiner.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <optional>

#include "server/localizers/object_footprint.h"

namespace omra::server {
namespace {

using Vec4 = Eigen::Vector4d;
using Mat4x4 = Eigen::Matrix4d;

double dot(const Vec3& a, const Vec3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
double dist2(const Vec3& a, const Vec3& b) {
  return (a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
         (a[2] - b[2]) * (a[2] - b[2]);
}

// Session point -> map frame: R^T (s - t).
Vec3 toMap(const Pose4& pose, const Vec3& s) {
  const Vec3 d{s[0] - pose.tx, s[1] - pose.ty, s[2] - pose.tz};
  return Pose4{0, 0, 0, -pose.theta}.apply(d);
}

// d(R m)/d(theta).
Vec3 turnDerivative(double theta, const Vec3& m) {
  const double c = std::cos(theta), s = std::sin(theta);
  return {-s * m[0] + c * m[2], 0, -c * m[0] - s * m[2]};
}

// The robust weight of an object's (or a point's) squared normalised residual u2: one that sits
// on the wrong face of its object, or is not the same object at all, is a gross error, not a
// wide one, so its weight falls to nothing rather than to a share (Geman-McClure with scale 3).
double objectWeight(double u2) {
  const double f = 1.0 + u2 / 9.0;
  return 1.0 / (f * f);
}

// The robust weight of a plane's (or a heading's) squared normalised residual: Cauchy, so that
// one misplaced wall costs little once it disagrees with the rest.
double planeWeight(double u2) { return 1.0 / (1.0 + u2 / 4.0); }

// Accumulates weighted least-squares terms with robust losses, so that one moved chair or one
// misplaced wall costs little once it disagrees with the rest.
struct Normal {
  Mat4x4 h = Mat4x4::Zero();
  Vec4 g = Vec4::Zero();
  // The objects' horizontal rows again, against an offset shared by all of them (see
  // covariance).
  Eigen::Matrix<double, 4, 2> sharedH = Eigen::Matrix<double, 4, 2>::Zero();
  Eigen::Matrix2d shared = Eigen::Matrix2d::Zero();
  // One residual r with Jacobian j, noise sigma.
  void add(double r, const Vec4& j, double sigma) {
    const double w = planeWeight(r * r / (sigma * sigma));
    h += w * j * j.transpose() / (sigma * sigma);
    g += w * j * r / (sigma * sigma);
  }
  // A 3-vector residual t + R m - s: the horizontal part with one robust weight and noise
  // sigma, the height with its own.
  void addPoint(const Pose4& pose, const Vec3& m, const Vec3& s, double sigma, double heightSigma,
                bool object = false) {
    const Vec3 p = pose.apply(m);
    const Vec3 r{p[0] - s[0], p[1] - s[1], p[2] - s[2]};
    const double w = objectWeight((r[0] * r[0] + r[2] * r[2]) / (sigma * sigma));
    const Vec3 dt = turnDerivative(pose.theta, m);
    for (int k : {0, 2}) {
      Vec4 j = Vec4::Zero();
      j[k] = 1;
      j[3] = dt[static_cast<size_t>(k)];
      h += w * j * j.transpose() / (sigma * sigma);
      g += w * j * r[static_cast<size_t>(k)] / (sigma * sigma);
      if (object) {
        const int b = k / 2;
        sharedH.col(b) += w * j / (sigma * sigma);
        shared(b, b) += w / (sigma * sigma);
      }
    }
    const double wy = objectWeight(r[1] * r[1] / (heightSigma * heightSigma));
    const Vec4 jy(0, 1, 0, 0);
    h += wy * jy * jy.transpose() / (heightSigma * heightSigma);
    g += wy * jy * r[1] / (heightSigma * heightSigma);
  }
  // The pose's covariance when the objects' horizontal positions may also share one offset of
  // sharedSigma per axis: the objects a session has seen from one side all sit off along its
  // view by much the same, which no number of them averages away; walls and points fix what
  // they fix regardless.
  Mat4x4 covariance(double sharedSigma) const {
    Mat4x4 info = h;
    if (sharedSigma > 0) {
      const Eigen::Matrix2d d = shared + Eigen::Matrix2d::Identity() / (sharedSigma * sharedSigma);
      info -= sharedH * d.inverse() * sharedH.transpose();
    }
    return info.ldlt().solve(Mat4x4::Identity());
  }
};

// Turns each wall onto the nearest axis of the walls' common right-angled frame, when they have
// one; the frame's heading (modulo a quarter turn) and the number of walls.
std::optional<double> straighten(std::vector<PlaneObservation>& planes, double maxSpread,
                                 int* walls) {
  *walls = 0;
  for (const PlaneObservation& p : planes) *walls += p.vertical;
  const std::optional<double> frame = manhattanHeading(planes, maxSpread);
  if (!frame) return std::nullopt;
  const double quarter = std::numbers::pi / 2;
  for (PlaneObservation& p : planes) {
    if (!p.vertical) continue;
    const double h = *frame + quarter * std::round(wrapAngle(heading(p.normal) - *frame) / quarter);
    p.normal = {std::sin(h), 0, std::cos(h)};
  }
  return frame;
}

struct Pairs {
  std::vector<std::pair<int, int>> objects;  // (map, session)
  std::vector<std::pair<const PlaneObservation*, const PlaneObservation*>> walls, floors;
  // Horizontal pairs whose edges run alike under the pose (a subset of floors).
  std::vector<std::pair<const PlaneObservation*, const PlaneObservation*>> edges;
  // Pairs of either kind whose outlines are of one size: both sessions saw the same extent.
  std::vector<std::pair<const PlaneObservation*, const PlaneObservation*>> outlines;
  std::vector<std::pair<Vec3, Vec3>> points;  // (map, session)
  int objectsNear = 0, pointsNear = 0;
  int wallsDisagreeing = 0;
};

class Problem {
 public:
  Problem(const SceneEvidence& map, const PointGrid& grid, const SceneEvidence& session,
          const Pose4& rough, const JointRefinerOptions& o)
      : map_(map), grid_(grid), session_(session), o_(o) {
    // A bounded, evenly spread share of the session's points keeps a run's cost flat.
    const size_t n = session.points.size();
    const size_t step = std::max<size_t>(1, n / 1500);
    for (size_t i = 0; i < n; i += step) sessionPoints_.push_back(session.points[i]);
    // In a rectangular room every wall of each session, paired or not, tells the heading modulo
    // a quarter turn; their mean is steadier than any one wall, and each wall turned onto it
    // keeps only the mean's error.
    const double spread = 3 * std::numbers::pi / 180;
    mapPlanes_ = map.planes;
    sessionPlanes_ = session.planes;
    mapFrame_ = straighten(mapPlanes_, spread, &mapWalls_);
    if (!mapFrame_) straightenNearSession(rough, spread);
    sessionFrame_ = straighten(sessionPlanes_, spread, &sessionWalls_);
    pairSigmas_.reserve(map.landmarks.size());
    for (const Landmark& l : map.landmarks) {
      const double size = o.objectSizeShare * typicalFootprint(l.label);
      pairSigmas_.push_back(std::sqrt(o.objectSigma * o.objectSigma + size * size));
    }
  }

  size_t sessionPointCount() const { return sessionPoints_.size(); }

  // The horizontal noise of a pair whose map object is map_.landmarks[i].
  double pairSigma(int i) const { return pairSigmas_[static_cast<size_t>(i)]; }

  // A long map whose tracking turned from room to room has no one right-angled frame, but the
  // room the hypothesis lays the session in may: its walls are those near the session's objects
  // and walls.
  void straightenNearSession(const Pose4& rough, double spread) {
    double lo[2] = {1e300, 1e300}, hi[2] = {-1e300, -1e300};
    auto include = [&](const Vec3& p) {
      lo[0] = std::min(lo[0], p[0]), hi[0] = std::max(hi[0], p[0]);
      lo[1] = std::min(lo[1], p[2]), hi[1] = std::max(hi[1], p[2]);
    };
    for (const Landmark& l : session_.landmarks) include(l.position);
    for (const PlaneObservation& p : session_.planes) include(p.origin);
    const double margin = 1.0;
    std::vector<PlaneObservation> near;
    std::vector<size_t> at;
    for (size_t k = 0; k < mapPlanes_.size(); ++k) {
      const Vec3 p = rough.apply(mapPlanes_[k].origin);
      if (!mapPlanes_[k].vertical || p[0] < lo[0] - margin || p[0] > hi[0] + margin ||
          p[2] < lo[1] - margin || p[2] > hi[1] + margin) {
        continue;
      }
      near.push_back(mapPlanes_[k]);
      at.push_back(k);
    }
    int walls = 0;
    mapFrame_ = straighten(near, spread, &walls);
    if (!mapFrame_) return;
    mapWalls_ = walls;
    for (size_t k = 0; k < at.size(); ++k) mapPlanes_[at[k]] = near[k];
  }

  Pairs associate(const Pose4& pose, double objectGate, double wallGate, double pointGate,
                  double edgeGate) const {
    Pairs out;
    // Objects: one-to-one pairs of equal label, nearest first.
    struct Near {
      double d2;
      int i, j;
    };
    std::vector<Near> near;
    const double gate2 = objectGate * objectGate;
    const double wide2 = o_.objectGateWide * o_.objectGateWide;
    std::vector<char> sessionNear(session_.landmarks.size());
    for (size_t i = 0; i < map_.landmarks.size(); ++i) {
      const Vec3 p = pose.apply(map_.landmarks[i].position);
      for (size_t j = 0; j < session_.landmarks.size(); ++j) {
        const double d2 = dist2(p, session_.landmarks[j].position);
        if (d2 <= wide2) sessionNear[j] = 1;
        if (d2 > gate2 || map_.landmarks[i].label != session_.landmarks[j].label) continue;
        near.push_back({d2, static_cast<int>(i), static_cast<int>(j)});
      }
    }
    for (char c : sessionNear) out.objectsNear += c;
    std::sort(near.begin(), near.end(), [](const Near& a, const Near& b) {
      return a.d2 != b.d2 ? a.d2 < b.d2 : (a.i != b.i ? a.i < b.i : a.j < b.j);
    });
    std::vector<char> usedMap(map_.landmarks.size()), usedSession(session_.landmarks.size());
    for (const Near& n : near) {
      if (usedMap[static_cast<size_t>(n.i)] || usedSession[static_cast<size_t>(n.j)]) continue;
      usedMap[static_cast<size_t>(n.i)] = usedSession[static_cast<size_t>(n.j)] = 1;
      out.objects.emplace_back(n.i, n.j);
    }
    // Walls: each session wall with the map wall the pose lays closest onto it; horizontal planes
    // by height.
    const double minCos = std::cos(o_.wallAngleGate);
    for (const PlaneObservation& s : sessionPlanes_) {
      const PlaneObservation* best = nullptr;
      double bestOffset = s.vertical ? wallGate : o_.floorGate;
      for (const PlaneObservation& m : mapPlanes_) {
        if (m.vertical != s.vertical) continue;
        const Vec3 moved = pose.apply(m.origin);
        double offset;
        if (s.vertical) {
          if (dot(Pose4{0, 0, 0, pose.theta}.apply(m.normal), s.normal) < minCos) continue;
          offset = std::fabs(dot(
              {moved[0] - s.origin[0], moved[1] - s.origin[1], moved[2] - s.origin[2]}, s.normal));
        } else {
          offset = std::fabs(moved[1] - s.origin[1]);
        }
        if (offset < bestOffset) bestOffset = offset, best = &m;
      }
      if (!best && s.vertical) {
        // A map wall facing the same way but well away from this one: the rooms differ.
        for (const PlaneObservation& m : mapPlanes_) {
          if (!m.vertical || dot(Pose4{0, 0, 0, pose.theta}.apply(m.normal), s.normal) < minCos) {
            continue;
          }
          const Vec3 moved = pose.apply(m.origin);
          if (std::fabs(
                  dot({moved[0] - s.origin[0], moved[1] - s.origin[1], moved[2] - s.origin[2]},
                      s.normal)) > o_.wallConflict) {
            ++out.wallsDisagreeing;
            break;
          }
        }
      }
      if (!best) continue;
      (s.vertical ? out.walls : out.floors).emplace_back(best, &s);
      if (!s.vertical) {
        const std::optional<double> r = edgeResidual(pose, *best, s);
        if (r && std::fabs(*r) <= edgeGate) out.edges.emplace_back(best, &s);
      }
      if (best->outline && s.outline &&
          std::fabs(best->outline->longSide - s.outline->longSide) <= o_.outlineAgreement &&
          std::fabs(best->outline->shortSide - s.outline->shortSide) <= o_.outlineAgreement) {
        out.outlines.emplace_back(best, &s);
      }
    }
    // Points: each session point with the nearest map point.
    if (grid_.size() > 0) {
      const double reach = std::min(grid_.cell(), std::max(pointGate, o_.pointGateWide));
      for (const Vec3& s : sessionPoints_) {
        const Vec3 m = toMap(pose, s);
        std::optional<Vec3> q = grid_.nearest(m, reach);
        if (!q) continue;
        ++out.pointsNear;
        if (dist2(*q, m) <= pointGate * pointGate) out.points.emplace_back(*q, s);
      }
    }
    return out;
  }

  // How far the pose turns a horizontal pair's edges past each other, modulo a quarter turn
  // (which edge an anchor squares to is the platform's choice); none when either anchor does not
  // tell its edges. Each anchor keeps a heading error of its own, as a wall does.
  static std::optional<double> edgeResidual(const Pose4& pose, const PlaneObservation& m,
                                            const PlaneObservation& s) {
    if (std::hypot(m.axis[0], m.axis[2]) < 0.5 || std::hypot(s.axis[0], s.axis[2]) < 0.5) {
      return std::nullopt;
    }
    const double quarter = std::numbers::pi / 2;
    const double d = wrapAngle(pose.theta - (heading(s.axis) - heading(m.axis)));
    return d - quarter * std::round(d / quarter);
  }

  // Adds how far apart the pose lays a pair's outline middles, within the plane (across it the
  // offset already counts): along a wall and up it, or both ways across a floor.
  void addOutline(Normal& n, const Pose4& pose, const PlaneObservation& m,
                  const PlaneObservation& s, double sigma) const {
    const Vec3 moved = pose.apply(m.outline->centre);
    const Vec3 d{moved[0] - s.outline->centre[0], moved[1] - s.outline->centre[1],
                 moved[2] - s.outline->centre[2]};
    const Vec3 dTurn = turnDerivative(pose.theta, m.outline->centre);
    auto add = [&](const Vec3& dir) {
      n.add(dot(d, dir), Vec4(dir[0], dir[1], dir[2], dot(dTurn, dir)), sigma);
    };
    if (s.vertical) {
      const double h = std::hypot(s.normal[0], s.normal[2]);
      add({s.normal[2] / h, 0, -s.normal[0] / h});
      add({0, 1, 0});
    } else {
      add({1, 0, 0});
      add({0, 0, 1});
    }
  }
  // How far a pair's outline middles may lie apart: the extents' own wander, and on a horizontal
  // plane each anchor's turn about its origin, which carries the middle sideways (on a wall it
  // carries it across the wall, where it does not count).
  double outlineSigma(const PlaneObservation& m, const PlaneObservation& s) const {
    double turned = 0;
    if (!s.vertical) {
      for (const PlaneObservation* p : {&m, &s}) {
        turned += std::pow(p->outline->centre[0] - p->origin[0], 2) +
                  std::pow(p->outline->centre[2] - p->origin[2], 2);
      }
    }
    return std::sqrt(o_.outlineSigma * o_.outlineSigma +
                     turned * o_.planeHeadingSigma * o_.planeHeadingSigma);
  }
  // The pair's outline gap within the plane, squared.
  static double outlineGap2(const Pose4& pose, const PlaneObservation& m,
                            const PlaneObservation& s) {
    const Vec3 moved = pose.apply(m.outline->centre);
    Vec3 d{moved[0] - s.outline->centre[0], moved[1] - s.outline->centre[1],
           moved[2] - s.outline->centre[2]};
    const double across = dot(d, s.normal);
    return std::max(0.0, dot(d, d) - across * across);
  }

  // The turn between the two rooms' right-angled frames (modulo a quarter turn), when both have
  // one.
  std::optional<double> quarterTurn() const {
    if (!mapFrame_ || !sessionFrame_) return std::nullopt;
    return *sessionFrame_ - *mapFrame_;
  }
  // False when both rooms have right-angled walls that the pose does not turn onto each other:
  // whichever walls each session saw, they must face the same ways.
  bool wallsAlign(const Pose4& pose) const {
    const std::optional<double> turn = quarterTurn();
    if (!turn) return true;
    const double quarter = std::numbers::pi / 2;
    const double d = wrapAngle(pose.theta - *turn);
    return std::fabs(d - quarter * std::round(d / quarter)) <= o_.wallAngleGate;
  }
  // Noise of quarterTurn(): each frame is the mean of its session's walls.
  double frameSigma() const {
    return o_.planeHeadingSigma * std::sqrt(1.0 / mapWalls_ + 1.0 / sessionWalls_);
  }

  // How far apart the pair's two walls lie halfway between their anchors, along their mean
  // normal: there the offsets of both count alike and their turns least. Its Jacobian and noise.
  double wallResidual(const Pose4& pose, const PlaneObservation& m, const PlaneObservation& s,
                      Vec4* j, double* sigma) const {
    const Vec3 moved = pose.apply(m.origin);
    const Vec3 mn = Pose4{0, 0, 0, pose.theta}.apply(m.normal);
    const Vec3 nn{(mn[0] + s.normal[0]) / 2, 0, (mn[2] + s.normal[2]) / 2};
    const Vec3 gap{moved[0] - s.origin[0], 0, moved[2] - s.origin[2]};
    const double r = dot(nn, gap);
    const Vec3 dMoved = turnDerivative(pose.theta, m.origin);
    const Vec3 dNormal = turnDerivative(pose.theta, m.normal);
    *j = Vec4(nn[0], 0, nn[2], dot(nn, dMoved) + 0.5 * dot(dNormal, gap));
    // Along the walls, the anchors lie this far apart.
    const double along2 = std::max(0.0, dot(gap, gap) - r * r / std::max(dot(nn, nn), 1e-9));
    const double turnVariance = quarterTurn() ? frameSigma() * frameSigma()
                                              : 2 * o_.planeHeadingSigma * o_.planeHeadingSigma;
    *sigma = std::sqrt(2 * o_.planeOffsetSigma * o_.planeOffsetSigma + along2 / 4 * turnVariance);
    return r;
  }

  // One Gauss-Newton step over the pairs; the normal matrix is left in *info.
  Pose4 step(const Pose4& pose, const Pose4& rough, const Pairs& pairs, Mat4x4* info) const {
    Normal n;
    for (auto [i, j] : pairs.objects) {
      n.addPoint(pose, map_.landmarks[static_cast<size_t>(i)].position,
                 session_.landmarks[static_cast<size_t>(j)].position, pairSigma(i),
                 o_.objectHeightSigma);
    }
    for (auto [m, s] : pairs.walls) {
      Vec4 j;
      double sigma;
      const double r = wallResidual(pose, *m, *s, &j, &sigma);
      n.add(r, j, sigma);
      if (!quarterTurn()) {
        const double turn = heading(s->normal) - heading(m->normal);
        n.add(wrapAngle(pose.theta - turn), Vec4(0, 0, 0, 1),
              std::sqrt(2.0) * o_.planeHeadingSigma);
      }
    }
    if (const std::optional<double> turn = quarterTurn(); turn && !pairs.walls.empty()) {
      const double quarter = std::numbers::pi / 2;
      const double d = wrapAngle(pose.theta - *turn);
      n.add(d - quarter * std::round(d / quarter), Vec4(0, 0, 0, 1), frameSigma());
    }
    for (auto [m, s] : pairs.floors) {
      n.add(pose.ty + m->origin[1] - s->origin[1], Vec4(0, 1, 0, 0),
            std::sqrt(2.0) * o_.planeOffsetSigma);
    }
    // Table tops and floors whose edges agree tell the heading as a wall pair does, each anchor
    // with an error of its own: evidence apart from the walls' common frame.
    for (auto [m, s] : pairs.edges) {
      n.add(*edgeResidual(pose, *m, *s), Vec4(0, 0, 0, 1), std::sqrt(2.0) * o_.planeHeadingSigma);
    }
    for (auto [m, s] : pairs.outlines) addOutline(n, pose, *m, *s, outlineSigma(*m, *s));
    for (const auto& [m, s] : pairs.points) n.addPoint(pose, m, s, o_.pointSigma, o_.pointSigma);
    // A weak pull towards the hypothesis keeps directions no evidence fixes where they were.
    const double prior = 1.0;
    n.add(pose.tx - rough.tx, Vec4(1, 0, 0, 0), prior);
    n.add(pose.ty - rough.ty, Vec4(0, 1, 0, 0), prior);
    n.add(pose.tz - rough.tz, Vec4(0, 0, 1, 0), prior);
    n.add(wrapAngle(pose.theta - rough.theta), Vec4(0, 0, 0, 1), prior);
    if (info) *info = n.h;
    const Vec4 delta = n.h.ldlt().solve(-n.g);
    if (!delta.allFinite()) return pose;
    return {pose.tx + delta[0], pose.ty + delta[1], pose.tz + delta[2],
            wrapAngle(pose.theta + delta[3])};
  }

 private:
  const SceneEvidence& map_;
  const PointGrid& grid_;
  const SceneEvidence& session_;
  const JointRefinerOptions& o_;
  std::vector<Vec3> sessionPoints_;
  std::vector<PlaneObservation> mapPlanes_, sessionPlanes_;  // walls straightened when square
  std::optional<double> mapFrame_, sessionFrame_;
  int mapWalls_ = 0, sessionWalls_ = 0;
  std::vector<double> pairSigmas_;  // per map landmark
};

// One residual's squared size in its own sigmas and how many numbers it holds.
struct Residual {
  double u2;
  int components;
};

// How many times wider than its sigma one kind of evidence is: a robust (Cauchy-weighted) mean
// square of its residuals, shrunk towards `prior` with the weight of priorComponents numbers, and
// never below 1. fitted: the share of the numbers the fit itself absorbed.
double noiseScale(const std::vector<Residual>& residuals, double prior, double priorComponents,
                  double fitted) {
  double s2 = prior * prior;
  for (int iteration = 0; iteration < 4; ++iteration) {
    double sum = priorComponents * prior * prior, count = priorComponents;
    for (const Residual& r : residuals) {
      const double w = 1.0 / (1.0 + r.u2 / (4 * s2));
      sum += w * r.u2;
      count += w * r.components * (1 - fitted);
    }
    s2 = std::max(1.0, sum / std::max(count, 1e-9));
  }
  return std::sqrt(s2);
}

// The middle of the map's objects among the pairs; the map's origin when there are none.
Vec3 objectCentre(const SceneEvidence& map, const std::vector<std::pair<int, int>>& objects) {
  Vec3 centre{0, 0, 0};
  for (auto [i, j] : objects) {
    const Vec3& m = map.landmarks[static_cast<size_t>(i)].position;
    for (size_t k = 0; k < 3; ++k) centre[k] += m[k] / static_cast<double>(objects.size());
  }
  return centre;
}

// How far a pose of covariance cov may put a point at centre (squared): the point moves by
// dt + dtheta * d(R c)/d(theta); an asset leverArm away adds the turn's share.
double varianceAt(const Mat4x4& cov, double theta, const Vec3& centre, double leverArm) {
  const Vec3 dc = turnDerivative(theta, centre);
  double var = leverArm * leverArm * cov(3, 3);
  for (const Vec4& row : {Vec4(1, 0, 0, dc[0]), Vec4(0, 1, 0, dc[1]), Vec4(0, 0, 1, dc[2])}) {
    var += row.dot(cov * row);
  }
  return var;
}

// How far a pose of covariance cov may move what matters (the root of the larger variance): an
// asset leverArm from the middle of the agreeing objects, and each known asset near them.
double reach(const Mat4x4& cov, double theta, const SceneEvidence& map,
             const std::vector<std::pair<int, int>>& objects, std::span<const Vec3> assets,
             const JointRefinerOptions& o) {
  double var = varianceAt(cov, theta, objectCentre(map, objects), o.leverArm);
  for (const Vec3& a : assets) {
    const bool near = std::any_of(objects.begin(), objects.end(), [&](std::pair<int, int> pair) {
      const Vec3& m = map.landmarks[static_cast<size_t>(pair.first)].position;
      return std::hypot(m[0] - a[0], m[2] - a[2]) <= o.assetNear;
    });
    if (near) var = std::max(var, varianceAt(cov, theta, a, 0));
  }
  return std::isfinite(var) && var >= 0 ? std::sqrt(var) : 1.0;
}

struct PredictedError {
  double metres = 1;
  double objectScale = 1;
};

PredictedError predictError(const Problem& problem, const Pose4& pose, const SceneEvidence& map,
                            const SceneEvidence& session, const Pairs& pairs,
                            std::span<const Vec3> assets, const JointRefinerOptions& o) {
  const double floorSigma = std::sqrt(2.0) * o.planeOffsetSigma;
  const double wallTurnSigma = std::sqrt(2.0) * o.planeHeadingSigma;
  std::vector<Residual> objects, planes, points;
  for (auto [i, j] : pairs.objects) {
    const Vec3& m = map.landmarks[static_cast<size_t>(i)].position;
    objects.push_back({dist2(pose.apply(m), session.landmarks[static_cast<size_t>(j)].position) /
                           std::pow(problem.pairSigma(i), 2),
                       3});
  }
  for (auto [m, s] : pairs.walls) {
    Vec4 j;
    double sigma;
    const double r = problem.wallResidual(pose, *m, *s, &j, &sigma);
    const double turn = wrapAngle(pose.theta - (heading(s->normal) - heading(m->normal)));
    planes.push_back({r * r / (sigma * sigma) + turn * turn / (wallTurnSigma * wallTurnSigma), 2});
  }
  for (auto [m, s] : pairs.floors) {
    const double r = pose.ty + m->origin[1] - s->origin[1];
    planes.push_back({r * r / (floorSigma * floorSigma), 1});
  }
  for (auto [m, s] : pairs.edges) {
    const double r = *Problem::edgeResidual(pose, *m, *s);
    planes.push_back({r * r / (wallTurnSigma * wallTurnSigma), 1});
  }
  for (auto [m, s] : pairs.outlines) {
    planes.push_back(
        {Problem::outlineGap2(pose, *m, *s) / std::pow(problem.outlineSigma(*m, *s), 2), 2});
  }
  for (const auto& [m, s] : pairs.points) {
    points.push_back({dist2(pose.apply(m), s) / (o.pointSigma * o.pointSigma), 3});
  }
  const double numbers = 3.0 * static_cast<double>(objects.size() + points.size()) +
                         2.0 * static_cast<double>(pairs.walls.size()) +
                         2.0 * static_cast<double>(pairs.outlines.size()) +
                         static_cast<double>(pairs.floors.size() + pairs.edges.size());
  const double fitted = numbers > 0 ? std::min(0.5, 4.0 / numbers) : 0;
  PredictedError out;
  out.objectScale = noiseScale(objects, o.objectNoisePrior, o.objectNoisePriorWeight, fitted);
  const double planeScale = noiseScale(planes, 1.0, o.planeNoisePriorWeight, fitted);
  const double pointScale = noiseScale(points, 1.0, o.pointNoisePriorWeight, fitted);

  // The normal matrix again, each kind at its own width.
  Normal n;
  for (auto [i, j] : pairs.objects) {
    n.addPoint(pose, map.landmarks[static_cast<size_t>(i)].position,
               session.landmarks[static_cast<size_t>(j)].position,
               problem.pairSigma(i) * out.objectScale, o.objectHeightSigma * out.objectScale, true);
  }
  for (auto [m, s] : pairs.walls) {
    Vec4 j;
    double sigma;
    const double r = problem.wallResidual(pose, *m, *s, &j, &sigma);
    n.add(r, j, sigma * planeScale);
    const double turn = heading(s->normal) - heading(m->normal);
    n.add(wrapAngle(pose.theta - turn), Vec4(0, 0, 0, 1), wallTurnSigma * planeScale);
  }
  for (auto [m, s] : pairs.floors) {
    n.add(pose.ty + m->origin[1] - s->origin[1], Vec4(0, 1, 0, 0), floorSigma * planeScale);
  }
  for (auto [m, s] : pairs.edges) {
    n.add(*Problem::edgeResidual(pose, *m, *s), Vec4(0, 0, 0, 1), wallTurnSigma * planeScale);
  }
  for (auto [m, s] : pairs.outlines) {
    problem.addOutline(n, pose, *m, *s, problem.outlineSigma(*m, *s) * planeScale);
  }
  for (const auto& [m, s] : pairs.points) {
    n.addPoint(pose, m, s, o.pointSigma * pointScale, o.pointSigma * pointScale);
  }
  // The weak pull towards the hypothesis, as in the steps: directions nothing fixes stay loose.
  for (int k = 0; k < 4; ++k) n.add(0, Vec4::Unit(k), 1.0);
  out.metres = reach(n.covariance(o.sharedObjectSigma), pose.theta, map, pairs.objects, assets, o);
  return out;
}

bool hasTwoWallDirections(const std::vector<const PlaneObservation*>& walls) {
  for (const PlaneObservation* a : walls) {
    for (const PlaneObservation* b : walls) {
      if (std::fabs(a->normal[0] * b->normal[2] - a->normal[2] * b->normal[0]) >= 0.5) return true;
    }
  }
  return false;
}

}  // namespace

JointResult JointRefiner::refine(const Pose4& rough, const SceneEvidence& map,
                                 const PointGrid& mapPoints, const SceneEvidence& session,
                                 std::span<const Vec3> assets) const {
  const JointRefinerOptions& o = options_;
  Problem problem(map, mapPoints, session, rough, o);
  JointResult out;
  Pose4 pose = rough;
  // Gates shrink over the first half of the rounds, then stay narrow while the pose settles.
  auto gate = [&](int round, double wide, double narrow) {
    const int half = std::max(1, o.rounds / 2);
    const double f = std::min(1.0, static_cast<double>(round) / half);
    return wide + (narrow - wide) * f;
  };
  for (int round = 0; round < o.rounds; ++round) {
    const Pairs pairs = problem.associate(
        pose, gate(round, o.objectGateWide, o.objectGate), gate(round, o.wallGateWide, o.wallGate),
        gate(round, o.pointGateWide, o.pointGate), gate(round, o.wallAngleGate, o.edgeGate));
    for (int inner = 0; inner < 2; ++inner) pose = problem.step(pose, rough, pairs, nullptr);
  }
  const Pairs pairs = problem.associate(pose, o.objectGate, o.wallGate, o.pointGate, o.edgeGate);
  Mat4x4 info;
  pose = problem.step(pose, rough, pairs, &info);
  out.transform = pose;
  out.objects = static_cast<int>(pairs.objects.size());
  out.objectsNear = pairs.objectsNear;
  std::map<std::string, int> perLabel;
  for (auto [i, j] : pairs.objects) ++perLabel[map.landmarks[static_cast<size_t>(i)].label];
  out.labels = static_cast<int>(perLabel.size());
  int mostOfOneLabel = 0;
  for (const auto& [label, n] : perLabel) mostOfOneLabel = std::max(mostOfOneLabel, n);
  out.walls = static_cast<int>(pairs.walls.size());
  out.wallsDisagreeing = pairs.wallsDisagreeing;
  out.horizontal = static_cast<int>(pairs.floors.size());
  out.edges = static_cast<int>(pairs.edges.size());
  out.outlines = static_cast<int>(pairs.outlines.size());
  out.points = static_cast<int>(pairs.points.size());
  out.pointsNear = pairs.pointsNear;
  std::vector<const PlaneObservation*> sessionWalls;
  for (auto [m, s] : pairs.walls) sessionWalls.push_back(s);
  out.bothWays = hasTwoWallDirections(sessionWalls);

  // Predicted error, the larger of two readings. One: the spread the evidence leaves, as the
  // inverse of the normal matrix says, for an asset leverArm from the origin, widened by evidence
  // that disagrees more than its noise; each residual counts as much as the robust loss lets it,
  // and the four the fit took up are not counted as agreement. Two: each kind's noise as its own
  // residuals show it, held by a prior while they are few, so that three objects that happen to
  // fit each other do not look finer than twenty.
  double weighted = 0, freedom = 0;
  auto count = [&](double u2, double w, double dof) {
    weighted += w * u2;
    freedom += w * dof;
  };
  for (auto [i, j] : pairs.objects) {
    const Vec3 p = pose.apply(map.landmarks[static_cast<size_t>(i)].position);
    const Vec3& q = session.landmarks[static_cast<size_t>(j)].position;
    const double u2 = ((p[0] - q[0]) * (p[0] - q[0]) + (p[2] - q[2]) * (p[2] - q[2])) /
                      std::pow(problem.pairSigma(i), 2);
    const double v2 = (p[1] - q[1]) * (p[1] - q[1]) / (o.objectHeightSigma * o.objectHeightSigma);
    count(u2, objectWeight(u2), 2);
    count(v2, objectWeight(v2), 1);
  }
  for (auto [m, s] : pairs.walls) {
    Vec4 j;
    double sigma;
    const double r = problem.wallResidual(pose, *m, *s, &j, &sigma);
    const double u2 = r * r / (sigma * sigma);
    count(u2, planeWeight(u2), 1);
  }
  for (auto [m, s] : pairs.edges) {
    const double r = *Problem::edgeResidual(pose, *m, *s);
    const double u2 = r * r / (2 * o.planeHeadingSigma * o.planeHeadingSigma);
    count(u2, planeWeight(u2), 1);
  }
  for (auto [m, s] : pairs.outlines) {
    const double u2 =
        Problem::outlineGap2(pose, *m, *s) / std::pow(problem.outlineSigma(*m, *s), 2);
    count(u2, planeWeight(u2), 2);
  }
  const double spread = std::max(1.0, std::sqrt(weighted / std::max(1.0, freedom - 4)));
  // Read near the agreeing objects, as predictError does: in a long map the room sits far from
  // the map's origin, where the turn's uncertainty alone would move a point by metres.
  const double consistency = spread * reach(info.ldlt().solve(Mat4x4::Identity()), pose.theta, map,
                                            pairs.objects, assets, o);
  const PredictedError predicted = predictError(problem, pose, map, session, pairs, assets, o);
  out.spread = predicted.objectScale;
  out.predictedError = std::max(consistency, predicted.metres);
  out.matchValue = std::exp(-out.predictedError / o.matchScale);

  // Verification.
  // Also at the objects: far from the map's origin a turn alone moves the origin by metres.
  const Vec3 centre = objectCentre(map, pairs.objects);
  const Vec3 settled = pose.apply(centre), proposed = rough.apply(centre);
  const double shift =
      std::hypot(settled[0] - proposed[0], settled[1] - proposed[1], settled[2] - proposed[2]);
  const bool pointsBothSides = mapPoints.size() > 0 && problem.sessionPointCount() > 0;
  // Walls of two directions and a floor, none disagreeing: the room's shape agrees.
  int mapWalls = 0;
  for (const PlaneObservation& p : map.planes) mapWalls += p.vertical;
  const bool shapeAgrees = out.bothWays && out.horizontal > 0 && out.wallsDisagreeing == 0;
  const bool wallsAgree = shapeAgrees && mapWalls <= o.wallsOfOneRoom;
  // In a map of several rooms, another room of that size may hold the same row of chairs and
  // one object that happens to line up; two beside the row are not chance.
  const bool fewerLabels =
      wallsAgree || (shapeAgrees && out.objects - mostOfOneLabel >= o.minObjectsBesideRow);
  if (shift > o.maxShift || std::fabs(wrapAngle(pose.theta - rough.theta)) > o.maxTurn) {
    out.why = "refinement left the hypothesis";
  } else if (out.predictedError >
             (out.bothWays ? o.maxPredictedError : o.maxPredictedErrorOneWay)) {
    out.why = "the evidence leaves too large an error";
  } else if ((out.wallsDisagreeing > 0 && 2 * out.wallsDisagreeing >= out.walls) ||
             !problem.wallsAlign(pose)) {
    // A session wall where the map has none weighs as much as two that agree: in a map of many
    // rooms, two walls of some room of about that size agree with any session's by chance.
    out.why = "walls disagree";
  } else if (out.objects < (wallsAgree       ? o.minObjectsWithWalls
                            : out.walls == 0 ? o.minObjectsWithoutWalls
                                             : o.minObjects)) {
    out.why = "too few objects agree";
  } else if (out.labels < (fewerLabels ? o.minLabels - 1 : o.minLabels)) {
    out.why = "too few kinds of object agree";
  } else if (out.objects <
             (out.bothWays ? o.minObjectShare : o.minObjectShareWithoutWalls) * out.objectsNear) {
    out.why = "most objects disagree";
  } else if (out.objects < o.looseShare * out.objectsNear && out.spread > o.maxLooseSpread) {
    out.why = "the objects that agree agree loosely";
  } else if (pointsBothSides && out.pointsNear >= o.minPoints &&
             out.points < o.minPointShare * out.pointsNear) {
    out.why = "feature points disagree";
  } else {
    out.verified = true;
  }
  if (!out.verified) out.matchValue = 0;
  return out;
}

}  // namespace omra::server
