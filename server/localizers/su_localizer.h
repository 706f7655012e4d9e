// The scene-understanding localizer: aligns the labelled objects of a localization session with
// those of a stored map. Stateless apart from its options; estimate() may run on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "server/localizers/pose4.h"

namespace omra::server {

// One record of a detected object: the tracker's id, label and position in one frame.
struct ObjectObservation {
  int64_t objectId = 0;
  std::string label;
  Vec3 position{};
};

struct Landmark {
  int64_t objectId = 0;
  std::string label;
  Vec3 position{};
};

// Groups observations by object id: position = per-axis median, label = most frequent label (ties
// go to the smaller text). Ordered by object id.
std::vector<Landmark> buildLandmarks(const std::vector<ObjectObservation>& observations);

struct SuLocalizerOptions {
  double separationTolerance = 0.2;  // metres: horizontal separations must agree this well
  double minSeparation = 0.3;        // metres: shorter separations give no reliable heading
  double inlierDistance = 0.25;      // metres
  int minInliers = 3;
  int minInliersSeeded = 2;
  // Seeded mode: candidate pairs must lie this close under the seed transform.
  double seedRadius = 1.0;
  // Work bounds for large scenes; beyond them hypotheses are sampled with the seed below.
  int maxHypotheses = 20000;
  int64_t maxMapPairs = 50000;
  uint64_t randomSeed = 0x5eed;
  // estimateSeveral: hypotheses count as one when they turn by less than this (radians) and move
  // none of their inliers by more than this (metres).
  double distinctTurn = 0.17, distinctShift = 0.5;
};

struct LocalizerReport {
  bool found = false;  // enough inliers agreed
  Pose4 transform;     // map frame -> session frame (set when at least one hypothesis existed)
  int inliers = 0;
  double residual = 0;    // RMS distance of the inliers after the transform, metres
  double matchValue = 0;  // quality in [0, 1]
  int hypotheses = 0;     // hypotheses scored
};

class SuLocalizer {
 public:
  explicit SuLocalizer(SuLocalizerOptions options = {}) : options_(options) {}

  // Unseeded when seed is absent. Deterministic for equal inputs and options.
  LocalizerReport estimate(const std::vector<Landmark>& map, const std::vector<Landmark>& session,
                           const std::optional<Pose4>& seed = std::nullopt) const;
  // Up to count of the best hypotheses that place the landmarks differently, best first, each
  // refined; empty when there was none. The first is estimate()'s answer.
  std::vector<LocalizerReport> estimateSeveral(const std::vector<Landmark>& map,
                                               const std::vector<Landmark>& session,
                                               const std::optional<Pose4>& seed, int count) const;

 private:
  SuLocalizerOptions options_;
};

}  // namespace omra::server
