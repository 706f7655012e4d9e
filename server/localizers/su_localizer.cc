#include "server/localizers/su_localizer.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

namespace omra::server {
namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// SplitMix64: small, fast and the same on every platform, unlike the standard distributions.
struct Rng {
  uint64_t state;
  uint64_t next() {
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  uint64_t below(uint64_t n) { return next() % n; }
};

struct Hypothesis {
  int i1, j1, i2, j2;
};

struct Score {
  int inliers = 0;
  double sumSquared = 0;
  std::vector<std::pair<int, int>> pairs;  // (map, session)
  bool betterThan(const Score& o) const {
    return inliers != o.inliers ? inliers > o.inliers : sumSquared < o.sumSquared;
  }
};

// Scene-independent working set: labels interned, session landmarks listed per label.
class Problem {
 public:
  Problem(const std::vector<Landmark>& map, const std::vector<Landmark>& session,
          const SuLocalizerOptions& options)
      : map_(map), session_(session), options_(options) {
    std::map<std::string, int> ids;
    for (const auto* set : {&map, &session}) {
      for (const Landmark& l : *set) ids.emplace(l.label, 0);
    }
    int next = 0;
    for (auto& [label, id] : ids) id = next++;
    mapLabel_.reserve(map.size());
    for (const Landmark& l : map) mapLabel_.push_back(ids[l.label]);
    for (const Landmark& l : session) sessionLabel_.push_back(ids[l.label]);
    sessionByLabel_.resize(static_cast<size_t>(next));
    for (size_t j = 0; j < session.size(); ++j) {
      sessionByLabel_[static_cast<size_t>(sessionLabel_[j])].push_back(static_cast<int>(j));
    }
  }

  int mapLabel(int i) const { return mapLabel_[static_cast<size_t>(i)]; }
  int sessionLabel(int j) const { return sessionLabel_[static_cast<size_t>(j)]; }
  const Vec3& m(int i) const { return map_[static_cast<size_t>(i)].position; }
  const Vec3& s(int j) const { return session_[static_cast<size_t>(j)].position; }

  // One-to-one pairs of equal label within the inlier distance, nearest first. Gives up (inliers
  // -1) as soon as fewer than mustReach map landmarks can still find a partner.
  Score score(const Pose4& pose, int mustReach = 0) const {
    const double limit2 = options_.inlierDistance * options_.inlierDistance;
    struct Near {
      double d2;
      int i, j;
    };
    std::vector<Near> near;
    const int nm = static_cast<int>(map_.size());
    int withPartner = 0;
    for (int i = 0; i < nm; ++i) {
      if (withPartner + (nm - i) < mustReach) return Score{-1, 0, {}};
      const Vec3 p = pose.apply(m(i));
      const size_t before = near.size();
      for (int j : sessionByLabel_[static_cast<size_t>(mapLabel(i))]) {
        const Vec3& q = s(j);
        const double d2 = (p[0] - q[0]) * (p[0] - q[0]) + (p[1] - q[1]) * (p[1] - q[1]) +
                          (p[2] - q[2]) * (p[2] - q[2]);
        if (d2 <= limit2) near.push_back({d2, i, j});
      }
      if (near.size() > before) ++withPartner;
    }
    std::sort(near.begin(), near.end(), [](const Near& a, const Near& b) {
      return a.d2 != b.d2 ? a.d2 < b.d2 : (a.i != b.i ? a.i < b.i : a.j < b.j);
    });
    std::vector<char> usedMap(map_.size()), usedSession(session_.size());
    Score result;
    for (const Near& n : near) {
      if (usedMap[static_cast<size_t>(n.i)] || usedSession[static_cast<size_t>(n.j)]) continue;
      usedMap[static_cast<size_t>(n.i)] = usedSession[static_cast<size_t>(n.j)] = 1;
      ++result.inliers;
      result.sumSquared += n.d2;
      result.pairs.emplace_back(n.i, n.j);
    }
    return result;
  }

  Pose4 fromHypothesis(const Hypothesis& h) const {
    const Vec3 dm{m(h.i2)[0] - m(h.i1)[0], 0, m(h.i2)[2] - m(h.i1)[2]};
    const Vec3 ds{s(h.j2)[0] - s(h.j1)[0], 0, s(h.j2)[2] - s(h.j1)[2]};
    Pose4 pose;
    pose.theta = wrapAngle(heading(ds) - heading(dm));
    const Vec3 rotated = Pose4{0, 0, 0, pose.theta}.apply(m(h.i1));
    pose.tx = s(h.j1)[0] - rotated[0];
    pose.ty = s(h.j1)[1] - rotated[1];
    pose.tz = s(h.j1)[2] - rotated[2];
    return pose;
  }

  // Closed-form 4-DoF least squares over the pairs: the turn from the centred x-z coordinates,
  // then the translation between the centroids.
  Pose4 refine(const std::vector<std::pair<int, int>>& pairs) const {
    Vec3 cm{}, cs{};
    for (auto [i, j] : pairs) {
      for (int k = 0; k < 3; ++k) {
        cm[static_cast<size_t>(k)] += m(i)[static_cast<size_t>(k)];
        cs[static_cast<size_t>(k)] += s(j)[static_cast<size_t>(k)];
      }
    }
    const double n = static_cast<double>(pairs.size());
    for (int k = 0; k < 3; ++k) {
      cm[static_cast<size_t>(k)] /= n;
      cs[static_cast<size_t>(k)] /= n;
    }
    double dotSum = 0, crossSum = 0;
    for (auto [i, j] : pairs) {
      const double mx = m(i)[0] - cm[0], mz = m(i)[2] - cm[2];
      const double sx = s(j)[0] - cs[0], sz = s(j)[2] - cs[2];
      dotSum += mz * sz + mx * sx;
      crossSum += mz * sx - mx * sz;
    }
    Pose4 pose;
    pose.theta = std::atan2(crossSum, dotSum);
    const Vec3 rotated = Pose4{0, 0, 0, pose.theta}.apply(cm);
    pose.tx = cs[0] - rotated[0];
    pose.ty = cs[1] - rotated[1];
    pose.tz = cs[2] - rotated[2];
    return pose;
  }

 private:
  const std::vector<Landmark>& map_;
  const std::vector<Landmark>& session_;
  const SuLocalizerOptions& options_;
  std::vector<int> mapLabel_, sessionLabel_;
  std::vector<std::vector<int>> sessionByLabel_;
};

}  // namespace

std::vector<Landmark> buildLandmarks(const std::vector<ObjectObservation>& observations) {
  std::map<int64_t, std::vector<const ObjectObservation*>> byObject;
  for (const ObjectObservation& o : observations) byObject[o.objectId].push_back(&o);
  std::vector<Landmark> out;
  out.reserve(byObject.size());
  for (const auto& [id, obs] : byObject) {
    Landmark l;
    l.objectId = id;
    for (size_t k = 0; k < 3; ++k) {
      std::vector<double> values;
      values.reserve(obs.size());
      for (const ObjectObservation* o : obs) values.push_back(o->position[k]);
      l.position[k] = median(std::move(values));
    }
    std::map<std::string, int> counts;
    for (const ObjectObservation* o : obs) ++counts[o->label];
    int best = 0;
    for (const auto& [label, count] : counts) {
      if (count > best) {
        best = count;
        l.label = label;
      }
    }
    out.push_back(std::move(l));
  }
  return out;
}

std::vector<LocalizerReport> SuLocalizer::estimateSeveral(const std::vector<Landmark>& map,
                                                          const std::vector<Landmark>& session,
                                                          const std::optional<Pose4>& seed,
                                                          int count) const {
  if (map.size() < 2 || session.size() < 2) return {};
  const SuLocalizerOptions& o = options_;
  Problem problem(map, session, o);
  const int nm = static_cast<int>(map.size()), ns = static_cast<int>(session.size());

  auto candidate = [&](int i, int j) {
    if (!seed) return true;  // labels already agree by construction of the lookups
    return distance(seed->apply(problem.m(i)), problem.s(j)) <= o.seedRadius;
  };

  // Session pairs indexed by (first label, second label, separation bin), so that a map pair
  // finds the session pairs of agreeing separation without a quadratic scan.
  const double bin = o.separationTolerance > 0 ? o.separationTolerance : 0.1;
  auto key = [&](int la, int lb, int64_t b) {
    return (static_cast<uint64_t>(la) << 44) ^ (static_cast<uint64_t>(lb) << 24) ^
           static_cast<uint64_t>(b);
  };
  struct SessionPair {
    uint64_t key;
    int j1, j2;
    double separation;
  };
  std::vector<SessionPair> sessionPairs;  // sorted by key: one flat array, binary-searched
  sessionPairs.reserve(static_cast<size_t>(ns) * static_cast<size_t>(ns - 1));
  for (int j1 = 0; j1 < ns; ++j1) {
    for (int j2 = 0; j2 < ns; ++j2) {
      if (j1 == j2) continue;
      const double sep = horizontalDistance(problem.s(j1), problem.s(j2));
      if (sep < o.minSeparation) continue;
      const auto b = static_cast<int64_t>(std::floor(sep / bin));
      sessionPairs.push_back(
          {key(problem.sessionLabel(j1), problem.sessionLabel(j2), b), j1, j2, sep});
    }
  }
  std::sort(sessionPairs.begin(), sessionPairs.end(),
            [](const SessionPair& a, const SessionPair& b) {
              return a.key != b.key ? a.key < b.key : (a.j1 != b.j1 ? a.j1 < b.j1 : a.j2 < b.j2);
            });

  // Reservoir of hypotheses: all of them when they fit, a seeded uniform sample otherwise.
  Rng rng{o.randomSeed};
  std::vector<Hypothesis> reservoir;
  uint64_t seen = 0;
  auto offer = [&](const Hypothesis& h) {
    ++seen;
    if (reservoir.size() < static_cast<size_t>(o.maxHypotheses)) {
      reservoir.push_back(h);
    } else {
      const uint64_t r = rng.below(seen);
      if (r < reservoir.size()) reservoir[r] = h;
    }
  };
  auto visitMapPair = [&](int i1, int i2) {
    const double sep = horizontalDistance(problem.m(i1), problem.m(i2));
    if (sep < o.minSeparation) return;
    const auto lo = static_cast<int64_t>(std::floor((sep - o.separationTolerance) / bin));
    const auto hi = static_cast<int64_t>(std::floor((sep + o.separationTolerance) / bin));
    for (int64_t b = std::max<int64_t>(lo, 0); b <= hi; ++b) {
      const uint64_t k = key(problem.mapLabel(i1), problem.mapLabel(i2), b);
      auto it = std::lower_bound(sessionPairs.begin(), sessionPairs.end(), k,
                                 [](const SessionPair& p, uint64_t v) { return p.key < v; });
      for (; it != sessionPairs.end() && it->key == k; ++it) {
        const int j1 = it->j1, j2 = it->j2;
        if (std::abs(it->separation - sep) > o.separationTolerance) continue;
        if (!candidate(i1, j1) || !candidate(i2, j2)) continue;
        offer({i1, j1, i2, j2});
      }
    }
  };
  const int64_t mapPairs = static_cast<int64_t>(nm) * (nm - 1) / 2;
  if (mapPairs <= o.maxMapPairs) {
    for (int i1 = 0; i1 < nm; ++i1) {
      for (int i2 = i1 + 1; i2 < nm; ++i2) visitMapPair(i1, i2);
    }
  } else {
    Rng pairRng{o.randomSeed ^ 0xa11ce};
    for (int64_t k = 0; k < o.maxMapPairs; ++k) {
      const int i1 = static_cast<int>(pairRng.below(static_cast<uint64_t>(nm)));
      const int i2 = static_cast<int>(pairRng.below(static_cast<uint64_t>(nm)));
      if (i1 != i2) visitMapPair(std::min(i1, i2), std::max(i1, i2));
    }
  }
  if (reservoir.empty()) return {};

  // The best few hypotheses that put the landmarks in different places: among hundreds of
  // landmarks of a few labels the most inliers may be a coincidence, and verification decides.
  struct Ranked {
    Score score;
    Pose4 pose;
  };
  std::vector<Ranked> top;
  const size_t keep = static_cast<size_t>(std::max(count, 1));
  auto alike = [&](const Pose4& a, const Pose4& b, const Score& s) {
    if (std::fabs(wrapAngle(a.theta - b.theta)) > o.distinctTurn) return false;
    for (auto [i, j] : s.pairs) {
      if (distance(a.apply(problem.m(i)), b.apply(problem.m(i))) > o.distinctShift) return false;
    }
    return true;
  };
  int hypotheses = 0;
  const int perfect = std::min(nm, ns);
  for (const Hypothesis& h : reservoir) {
    const Pose4 pose = problem.fromHypothesis(h);
    const int mustReach = top.size() == keep ? top.back().score.inliers : 0;
    Score s = problem.score(pose, mustReach);
    ++hypotheses;
    if (s.inliers < 0) continue;
    if (top.size() == keep && !s.betterThan(top.back().score)) continue;
    auto same = std::find_if(top.begin(), top.end(),
                             [&](const Ranked& r) { return alike(r.pose, pose, r.score); });
    if (same != top.end()) {
      if (!s.betterThan(same->score)) continue;
      top.erase(same);
    }
    auto at = std::find_if(top.begin(), top.end(),
                           [&](const Ranked& r) { return s.betterThan(r.score); });
    top.insert(at, Ranked{std::move(s), pose});
    if (top.size() > keep) top.pop_back();
    if (keep == 1 && top.front().score.inliers == perfect) break;  // nothing can have more
  }
  std::vector<LocalizerReport> out;
  for (Ranked& r : top) {
    // Refine over the inliers until the set stops growing (a few rounds at most).
    for (int round = 0; round < 3 && r.score.inliers >= 2; ++round) {
      const Pose4 refined = problem.refine(r.score.pairs);
      Score s = problem.score(refined);
      if (s.inliers < r.score.inliers) break;
      const bool grew = s.inliers > r.score.inliers;
      r.score = std::move(s);
      r.pose = refined;
      if (!grew) break;
    }
    LocalizerReport report;
    report.hypotheses = hypotheses;
    report.transform = r.pose;
    report.inliers = r.score.inliers;
    report.residual = r.score.inliers ? std::sqrt(r.score.sumSquared / r.score.inliers) : 0;
    report.matchValue = static_cast<double>(r.score.inliers) / perfect;
    report.found = r.score.inliers >= (seed ? o.minInliersSeeded : o.minInliers);
    out.push_back(report);
  }
  return out;
}

LocalizerReport SuLocalizer::estimate(const std::vector<Landmark>& map,
                                      const std::vector<Landmark>& session,
                                      const std::optional<Pose4>& seed) const {
  std::vector<LocalizerReport> best = estimateSeveral(map, session, seed, 1);
  return best.empty() ? LocalizerReport{} : best.front();
}

}  // namespace omra::server
