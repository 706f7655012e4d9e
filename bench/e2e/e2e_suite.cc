#include "bench/e2e/e2e_suite.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

namespace omra::bench {

using tools::AssetOutcome;
using tools::ScenarioReport;

namespace {

// The worst error of a scene's final assets; false when one did not come back.
bool worstOf(const ScenarioReport& r, double* cm, double* degrees) {
  *cm = 0, *degrees = 0;
  if (r.assets.empty()) return false;
  for (const AssetOutcome& a : r.assets) {
    if (!a.placed) return false;
    *cm = std::max(*cm, a.errorCm);
    *degrees = std::max(*degrees, a.errorDegrees);
  }
  return true;
}

}  // namespace

double percentile(std::vector<double> v, double q) {
  if (v.empty()) return -1;
  std::sort(v.begin(), v.end());
  const double at = q * static_cast<double>(v.size() - 1);
  const size_t lo = static_cast<size_t>(at);
  const size_t hi = std::min(lo + 1, v.size() - 1);
  return v[lo] + (v[hi] - v[lo]) * (at - static_cast<double>(lo));
}

tools::ScenarioRunOptions baseSceneOptions(uint64_t seed) {
  tools::ScenarioRunOptions o;
  o.scenario.seed = seed;
  o.scenario.mappingSeconds = 16;
  o.scenario.localizationSeconds = 12;
  o.mappingSpeed = 4;
  // The localization session at its own pace, so scan seconds until the first assets are real.
  o.localizationSpeed = 1;
  o.settleScanSeconds = 5;
  o.waitAfterFeedSeconds = 5;
  return o;
}

void keepRequestedSeeds(std::vector<Scene>& scenes) {
  const char* only = std::getenv("OMRA_E2E_ONLY");
  if (!only) return;
  std::set<uint64_t> keep;
  for (const char* p = only; *p;) {
    char* end = nullptr;
    keep.insert(std::strtoull(p, &end, 10));
    if (end == p) break;
    p = *end ? end + 1 : end;
  }
  std::erase_if(scenes, [&](const Scene& s) { return !keep.count(s.options.scenario.seed); });
}

void applyRequestedPlaneError(std::vector<Scene>& scenes) {
  const char* text = std::getenv("OMRA_E2E_PLANE_ERROR");
  if (!text) return;
  const char* end = text + std::strlen(text);
  double offset = 0, heading = 0;
  auto [comma, ec] = std::from_chars(text, end, offset);
  bool ok = ec == std::errc() && comma != end && *comma == ',';
  if (ok) {
    auto [last, ec2] = std::from_chars(comma + 1, end, heading);
    ok = ec2 == std::errc() && last == end && offset >= 0 && heading >= 0;
  }
  if (!ok) {
    std::fprintf(
        stderr, "OMRA_E2E_PLANE_ERROR wants \"M,DEG\" (two numbers, not negative): \"%s\"\n", text);
    std::exit(2);
  }
  for (Scene& s : scenes) {
    s.options.scenario.planeNoise.offsetSigma = offset;
    s.options.scenario.planeNoise.headingSigmaDegrees = heading;
  }
}

std::vector<SceneResult> runScenes(const std::vector<Scene>& scenes, int parallel) {
  std::vector<SceneResult> results(scenes.size());
  std::atomic<size_t> next{0};
  std::mutex printMutex;
  auto worker = [&] {
    for (size_t i = next++; i < scenes.size(); i = next++) {
      results[i].group = scenes[i].group;
      tools::ScenarioRunOptions options = scenes[i].options;
      // OMRA_E2E_LOG=DIR keeps each scene's kit and server lines in DIR/SEED.log.
      std::shared_ptr<std::ofstream> log;
      std::shared_ptr<std::mutex> logMutex = std::make_shared<std::mutex>();
      if (const char* dir = std::getenv("OMRA_E2E_LOG")) {
        log = std::make_shared<std::ofstream>(std::string(dir) + "/" +
                                              std::to_string(options.scenario.seed) + ".log");
        auto write = [log, logMutex](const char* who) {
          return [log, logMutex, who](std::string_view line) {
            std::lock_guard lock(*logMutex);
            *log << who << line << '\n';
          };
        };
        options.kitLog = write("kit: ");
        options.serverLog = write("server: ");
      }
      results[i].report = tools::runScenario(options);
      if (log) {
        // The truth and the assets, so that each logged transform can be judged afterwards.
        const ScenarioReport& r = results[i].report;
        std::lock_guard lock(*logMutex);
        if (!r.scenario.wrongRoom) {
          *log << "truth: " << r.scenario.localizationFromMapping().toText() << '\n';
        }
        for (const AssetOutcome& a : r.assets) {
          *log << "asset: " << a.expected.x << ' ' << a.expected.y << ' ' << a.expected.z << '\n';
        }
        // Where the host placed each asset in the map (see room_placements.h): the mapping frame
        // it was placed from and how far the tracking had drifted there, against the map's end.
        const sim::Recording& mapping = *r.scenario.mapping;
        const sim::RecordingTruth& mapTruth = *mapping.truth;
        if (!mapTruth.trackedFromRoom.empty()) {
          for (const tools::AssetSpot& spot : tools::assetSpots(*r.scenario.room)) {
            const std::optional<int64_t> frame = tools::placementFrame(mapping, spot);
            const sim::Vec3 free = mapTruth.sessionFromRoom.apply(spot.position);
            const MapAsset placed = tools::hostPlacement(mapping, spot);
            const double atPlacement =
                (sim::Vec3{placed.position.x, placed.position.y, placed.position.z} - free).norm();
            const double atEnd =
                (mapTruth.trackedFromRoom.back().apply(spot.position) - free).norm();
            *log << "placed " << spot.id << " from mapping frame "
                 << (frame ? std::to_string(*frame) : std::string("(none in view)"))
                 << ", drift there " << atPlacement * 100 << " cm, at the map's end " << atEnd * 100
                 << " cm\n";
          }
        }
      }
      const ScenarioReport& r = results[i].report;
      std::lock_guard lock(printMutex);
      std::string first;
      if (!r.arrivals.empty()) {
        const tools::ArrivalOutcome& a = r.arrivals.front();
        char text[160];
        std::snprintf(text, sizeof text, "; first at %.1f s from %s, %.1f cm%s; %zu arrival(s)",
                      a.scanSeconds, a.localizer.c_str(), a.maxErrorCm,
                      a.complete ? "" : " (incomplete)", r.arrivals.size());
        first = text;
      }
      double worstCm = 0, worstDegrees = 0;
      char worst[64] = "";
      if (worstOf(r, &worstCm, &worstDegrees)) {
        std::snprintf(worst, sizeof worst, "; worst %.1f cm, %.2f deg", worstCm, worstDegrees);
      }
      std::fprintf(stderr, "scene %llu (%s): %s%s (%.1f s)%s%s\n",
                   static_cast<unsigned long long>(scenes[i].options.scenario.seed),
                   scenes[i].group.c_str(), r.success ? "ok" : "FAILED: ", r.failure.c_str(),
                   r.wallSeconds, first.c_str(), worst);
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < std::max(parallel, 1); ++t) threads.emplace_back(worker);
  for (std::thread& t : threads) t.join();
  return results;
}

double successPercent(const std::vector<const SceneResult*>& scenes, double cm, double degrees) {
  if (scenes.empty()) return 0;
  int ok = 0;
  for (const SceneResult* s : scenes) {
    double worstCm = 0, worstDegrees = 0;
    if (worstOf(s->report, &worstCm, &worstDegrees) && worstCm <= cm && worstDegrees <= degrees)
      ++ok;
  }
  return 100.0 * ok / static_cast<double>(scenes.size());
}

void printSummary(const std::string& prefix, const std::vector<const SceneResult*>& scenes) {
  const char* p = prefix.c_str();
  std::vector<double> cm, degrees, worstCm, worstDegrees, firstSeconds;
  int firstWithin10 = 0, firstCount = 0;
  for (const SceneResult* s : scenes) {
    const ScenarioReport& r = s->report;
    for (const AssetOutcome& a : r.assets) {
      if (!a.placed) continue;
      cm.push_back(a.errorCm);
      degrees.push_back(a.errorDegrees);
    }
    double wc = 0, wd = 0;
    if (worstOf(r, &wc, &wd)) {
      worstCm.push_back(wc);
      worstDegrees.push_back(wd);
    }
    if (!r.arrivals.empty()) {
      ++firstCount;
      firstSeconds.push_back(r.arrivals.front().scanSeconds);
      const tools::ArrivalOutcome& first = r.arrivals.front();
      if (first.complete && first.maxErrorCm <= 10) ++firstWithin10;
    }
  }
  std::printf("figure %s_success_10cm_5deg_pct %.1f %%\n", p, successPercent(scenes, 10, 5));
  std::printf("figure %s_success_10cm_2deg_pct %.1f %%\n", p, successPercent(scenes, 10, 2));
  std::printf("figure %s_success_5cm_1deg_pct %.1f %%\n", p, successPercent(scenes, 5, 1));
  std::printf("figure %s_success_2cm_0_5deg_pct %.1f %%\n", p, successPercent(scenes, 2, 0.5));
  std::printf("figure %s_median_worst_cm %.2f cm\n", p, percentile(worstCm, 0.5));
  std::printf("figure %s_median_worst_deg %.3f deg\n", p, percentile(worstDegrees, 0.5));
  std::printf("figure %s_p90_worst_cm %.2f cm\n", p, percentile(worstCm, 0.9));
  std::printf("figure %s_p90_worst_deg %.3f deg\n", p, percentile(worstDegrees, 0.9));
  std::printf("figure %s_error_median_cm %.2f cm\n", p, percentile(cm, 0.5));
  std::printf("figure %s_error_p90_cm %.2f cm\n", p, percentile(cm, 0.9));
  std::printf("figure %s_error_median_deg %.3f deg\n", p, percentile(degrees, 0.5));
  std::printf("figure %s_error_p90_deg %.3f deg\n", p, percentile(degrees, 0.9));
  std::printf("figure %s_first_assets_median_s %.2f s\n", p, percentile(firstSeconds, 0.5));
  std::printf("figure %s_first_assets_p90_s %.2f s\n", p, percentile(firstSeconds, 0.9));
  std::printf("figure %s_first_assets_within_10cm_pct %.1f %%\n", p,
              scenes.empty() ? 0.0 : 100.0 * firstWithin10 / static_cast<double>(scenes.size()));
}

}  // namespace omra::bench
