// The end-to-end benchmarks' shared part: runs scenes a few at a time (most of a run is paced
// waiting), each with its own omra-server and store, and prints their figures. Used from the
// benchmark's main thread only.
#pragma once

#include <string>
#include <vector>

#include "tools/runner/scenario_run.h"

namespace omra::bench {

struct Scene {
  std::string group;  // the condition, for per-group figures
  tools::ScenarioRunOptions options;
};

struct SceneResult {
  std::string group;
  tools::ScenarioReport report;
};

// The scene options both suites start from (scene lengths and pacing).
tools::ScenarioRunOptions baseSceneOptions(uint64_t seed);

// OMRA_E2E_ONLY="seed,seed" keeps only the scenes of those seeds (the figures then cover them).
void keepRequestedSeeds(std::vector<Scene>& scenes);

// OMRA_E2E_PLANE_ERROR="M,DEG" gives every scene's detected planes that lasting error (metres along
// the normal, degrees about the vertical) in place of the default 0.01,0.5: the figures then show
// how much of the error the planes carry. Exits with a message when the text is not two numbers.
void applyRequestedPlaneError(std::vector<Scene>& scenes);

std::vector<SceneResult> runScenes(const std::vector<Scene>& scenes, int parallel);

// Share (percent) of the scenes whose final assets all came back within both limits.
double successPercent(const std::vector<const SceneResult*>& scenes, double cm, double degrees);

// Success at 10 cm / 5 deg, 5 cm / 1 deg and 2 cm / 0.5 deg, the median and 90th percentile of
// every asset's error and of each scene's worst, and the first assets: scan seconds and the share
// that came within 10 cm. Scenes with no assets back count as failures and add no errors.
void printSummary(const std::string& prefix, const std::vector<const SceneResult*>& scenes);

double percentile(std::vector<double> values, double q);

}  // namespace omra::bench
