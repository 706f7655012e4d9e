// Relocalization over 20 seeded scenes, end to end: success rate, translation and heading errors of
// the returned assets, scan time until the first assets, overall and per localizer. The scenes run
// a few at a time (most of a run is paced waiting), each with its own omra-server and store.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/runner/scenario_run.h"

namespace {

using omra::tools::ArrivalOutcome;
using omra::tools::AssetOutcome;
using omra::tools::ScenarioReport;
using omra::tools::ScenarioRunOptions;

double percentile(std::vector<double> v, double q) {
  if (v.empty()) return -1;
  std::sort(v.begin(), v.end());
  const double at = q * static_cast<double>(v.size() - 1);
  const size_t lo = static_cast<size_t>(at);
  const size_t hi = std::min(lo + 1, v.size() - 1);
  return v[lo] + (v[hi] - v[lo]) * (at - static_cast<double>(lo));
}

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
  const int scenes = argc > 1 ? std::atoi(argv[1]) : 20;
  const int parallel = 5;
  std::vector<ScenarioReport> reports(static_cast<size_t>(scenes));
  std::atomic<int> next{0};
  std::mutex printMutex;
  auto worker = [&] {
    for (int i = next++; i < scenes; i = next++) {
      ScenarioRunOptions o;
      o.scenario.seed = 1000 + static_cast<uint64_t>(i);
      o.scenario.mappingSeconds = 16;
      o.scenario.localizationSeconds = 12;
      o.mappingSpeed = 4;
      // The localization session at its own pace, so scan seconds until the first assets are real.
      o.localizationSpeed = 1;
      o.settleScanSeconds = 5;
      o.waitAfterFeedSeconds = 5;
      reports[static_cast<size_t>(i)] = omra::tools::runScenario(o);
      const ScenarioReport& r = reports[static_cast<size_t>(i)];
      std::lock_guard lock(printMutex);
      std::fprintf(stderr, "scene %llu: %s%s (%.1f s)\n",
                   static_cast<unsigned long long>(o.scenario.seed),
                   r.success ? "ok" : "FAILED: ", r.failure.c_str(), r.wallSeconds);
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < parallel; ++t) threads.emplace_back(worker);
  for (std::thread& t : threads) t.join();

  // Overall: the assets the host holds at the end of each scene.
  Errors overall;
  std::map<std::string, Errors> byLocalizer;
  int successes = 0;
  for (const ScenarioReport& r : reports) {
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
  std::printf("figure e2e_scenes %d count\n", scenes);
  std::printf("figure e2e_success_rate %.1f %%\n", 100.0 * successes / std::max(scenes, 1));
  printErrors("e2e", overall);
  for (const auto& [name, e] : byLocalizer) {
    std::printf("figure e2e_%s_updates %d count\n", name.c_str(), e.results);
    printErrors("e2e_" + name, e);
  }
  return 0;
}
