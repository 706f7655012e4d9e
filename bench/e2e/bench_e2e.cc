// Relocalization over 20 seeded scenes, end to end: success rate, translation and heading errors of
// the returned assets, scan time until the first assets, overall and per localizer. The scenes run
// a few at a time (most of a run is paced waiting), each with its own omra-server and store.
//
// bench_e2e [SCENES (20) [FIRST_SEED (1000)]]: seeds FIRST_SEED, FIRST_SEED+1, ...; another first
// seed runs scenes the suite's own figures never saw. OMRA_E2E_ONLY="1003,1017" runs only those
// seeds; OMRA_E2E_PLANE_ERROR="0.01,0.25" gives the detected planes another lasting error.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench/e2e/e2e_suite.h"

namespace {

using omra::bench::percentile;
using omra::bench::Scene;
using omra::bench::SceneResult;
using omra::tools::ArrivalOutcome;
using omra::tools::AssetOutcome;
using omra::tools::ScenarioReport;

struct Errors {
  std::vector<double> cm, degrees, firstSeconds;
  int results = 0;
};

void printErrors(const std::string& prefix, const Errors& e) {
  std::printf("figure %s_translation_error_median %.2f cm\n", prefix.c_str(),
              percentile(e.cm, 0.5));
  std::printf("figure %s_translation_error_p90 %.2f cm\n", prefix.c_str(), percentile(e.cm, 0.9));
  std::printf("figure %s_heading_error_median %.3f deg\n", prefix.c_str(),
              percentile(e.degrees, 0.5));
  std::printf("figure %s_heading_error_p90 %.3f deg\n", prefix.c_str(), percentile(e.degrees, 0.9));
  std::printf("figure %s_first_assets_scan_seconds_median %.2f s\n", prefix.c_str(),
              percentile(e.firstSeconds, 0.5));
  std::printf("figure %s_first_assets_scan_seconds_p90 %.2f s\n", prefix.c_str(),
              percentile(e.firstSeconds, 0.9));
}

}  // namespace

int main(int argc, char** argv) {
  const auto number = [&](int at, uint64_t fallback) {
    if (argc <= at) return fallback;
    uint64_t value = 0;
    const char* end = argv[at] + std::strlen(argv[at]);
    auto [ptr, ec] = std::from_chars(argv[at], end, value);
    if (ec != std::errc() || ptr != end) {
      std::fprintf(stderr, "bench_e2e: \"%s\" is not a count or a seed\n", argv[at]);
      std::exit(2);
    }
    return value;
  };
  const uint64_t count = number(1, 20);
  const uint64_t firstSeed = number(2, 1000);
  std::vector<Scene> scenes;
  for (uint64_t i = 0; i < count; ++i) {
    scenes.push_back({"plain", omra::bench::baseSceneOptions(firstSeed + i)});
  }
  omra::bench::keepRequestedSeeds(scenes);
  omra::bench::applyRequestedPlaneError(scenes);
  const std::vector<SceneResult> results = omra::bench::runScenes(scenes, 5);

  // Overall: the assets the host holds at the end of each scene.
  Errors overall;
  std::map<std::string, Errors> byLocalizer;
  int successes = 0;
  std::vector<const SceneResult*> all;
  for (const SceneResult& s : results) {
    all.push_back(&s);
    const ScenarioReport& r = s.report;
    if (r.success) ++successes;
    if (r.firstAssetsScanSeconds) overall.firstSeconds.push_back(*r.firstAssetsScanSeconds);
    for (const AssetOutcome& a : r.assets) {
      if (!a.placed) continue;
      overall.cm.push_back(a.errorCm);
      overall.degrees.push_back(a.errorDegrees);
    }
    // Per localizer: every update it produced, and when it first produced one.
    std::map<std::string, bool> seen;
    for (const ArrivalOutcome& arrival : r.arrivals) {
      Errors& e = byLocalizer[arrival.localizer.empty() ? "unknown" : arrival.localizer];
      ++e.results;
      if (!seen[arrival.localizer]) e.firstSeconds.push_back(arrival.scanSeconds);
      seen[arrival.localizer] = true;
      for (const AssetOutcome& a : arrival.assets) {
        if (!a.placed) continue;
        e.cm.push_back(a.errorCm);
        e.degrees.push_back(a.errorDegrees);
      }
    }
  }
  const int ran = static_cast<int>(results.size());
  std::printf("figure e2e_scenes %d count\n", ran);
  std::printf("figure e2e_success_rate %.1f %%\n", 100.0 * successes / std::max(ran, 1));
  printErrors("e2e", overall);
  for (const auto& [name, e] : byLocalizer) {
    std::printf("figure e2e_%s_updates %d count\n", name.c_str(), e.results);
    printErrors("e2e_" + name, e);
  }
  omra::bench::printSummary("e2e", all);
  return 0;
}
