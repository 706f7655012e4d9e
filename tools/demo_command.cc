#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "tools/commands.h"
#ifdef OMRA_HAVE_SERVER
#include "src/platform/store/record_store_factory.h"
#include "tools/runner/demo_text.h"
#include "tools/runner/html_report.h"
#include "tools/runner/markup.h"
#include "tools/runner/scenario_run.h"
#include "tools/runner/svg_report.h"
#endif

namespace omra::tools {

#ifdef OMRA_HAVE_SERVER
namespace {

std::mutex g_outputMutex;

void printLine(std::string_view line) {
  std::lock_guard lock(g_outputMutex);
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

std::string vec(const sim::Vec3& v) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "(%6.2f, %5.2f, %6.2f)", v.x, v.y, v.z);
  return buffer;
}

}  // namespace

int runDemo(const DemoOptions& demo) {
  std::string error;
  std::string folder;
  std::string storeSpec = demo.store;
  if (storeSpec.empty() || demo.svg.empty()) {
    char pattern[] = "/tmp/omra-demo-XXXXXX";
    if (!mkdtemp(pattern)) {
      std::fprintf(stderr, "omra demo: cannot create a temporary folder\n");
      return 1;
    }
    folder = pattern;
  }
  if (storeSpec.empty()) storeSpec = "sqlite:" + folder + "/omra.db";
  const std::string svgPath = demo.svg.empty() ? folder + "/omra-demo.svg" : demo.svg;
  const std::string htmlPath =
      demo.html.empty() ? (std::filesystem::path(svgPath).parent_path() / "report.html").string()
                        : demo.html;

  std::shared_ptr<RecordStore> store = makeRecordStore(storeSpec, {}, nullptr, &error);
  if (!store) {
    std::fprintf(stderr, "omra demo: cannot open the store %s: %s\n", storeSpec.c_str(),
                 error.c_str());
    return 1;
  }

  ScenarioRunOptions options;
  options.scenario.seed = demo.seed;
  if (!applySceneConditions(demo.conditions, options.scenario, &error)) {
    std::fprintf(stderr, "omra demo: %s\n", error.c_str());
    return 1;
  }
  options.store = store;
  if (demo.verbose) {
    options.kitLog = printLine;
    options.serverLog = printLine;
  }
  const bool tty = isatty(STDERR_FILENO);
  std::string lastPhase;
  int lastPercent = -1;
  options.progress = [&](std::string_view phase, size_t fed, size_t total, int64_t progress) {
    const int percent = total ? static_cast<int>(100 * fed / total) : 100;
    if (phase == lastPhase && percent == lastPercent) return;
    // Without a terminal, a line every 25% is enough.
    if (!tty && phase == lastPhase && percent / 25 == lastPercent / 25 && fed != total) return;
    if (phase != lastPhase && !lastPhase.empty() && tty) std::fputc('\n', stderr);
    lastPhase = phase;
    lastPercent = percent;
    std::lock_guard lock(g_outputMutex);
    std::fprintf(stderr, "%sscanning (%.*s session): %3d%% of %zu frames, scan progress %lld%s",
                 tty ? "\r" : "", static_cast<int>(phase.size()), phase.data(), percent, total,
                 static_cast<long long>(progress), tty ? "" : "\n");
  };

  std::printf("omra demo: scene %llu, store %s\n", static_cast<unsigned long long>(demo.seed),
              storeSpec.c_str());
  std::fflush(stdout);
  ScenarioReport report = runScenario(options);
  if (tty && !lastPhase.empty()) std::fputc('\n', stderr);

  const sim::Room& room = *report.scenario.room;
  std::printf(
      "room %.1f m x %.1f m with %zu objects; mapping %zu frames (%.1f s), localization "
      "%zu of %zu frames (%.1f s)\n",
      room.width, room.depth, room.objects.size(), report.mapping.framesFed,
      report.mapping.scanSeconds, report.localization.framesFed, report.localization.framesTotal,
      report.localization.scanSeconds);
  std::printf("\n%-10s %-24s %-24s %9s %8s  %s\n", "asset", "expected (m)", "relocalized (m)",
              "error cm", "err deg", "localizer");
  for (const AssetOutcome& a : report.assets) {
    if (a.placed) {
      std::printf("%-10s %-24s %-24s %9.1f %8.2f  %s\n", a.id.c_str(), vec(a.expected).c_str(),
                  vec(*a.placed).c_str(), a.errorCm, a.errorDegrees, report.localizer.c_str());
    } else {
      std::printf("%-10s %-24s %-24s %9s %8s  %s\n", a.id.c_str(), vec(a.expected).c_str(),
                  "not returned", "-", "-", "-");
    }
  }
  if (report.arrivals.size() > 1) {
    std::printf("\nevery update:\n");
    for (const ArrivalOutcome& a : report.arrivals) {
      std::printf("  after %5.1f s of scanning: %-20s match %-6s worst error %6.1f cm %6.2f deg\n",
                  a.scanSeconds, a.localizer.c_str(),
                  a.matchValue ? fixed(*a.matchValue, 3).c_str() : "-", a.maxErrorCm,
                  a.maxErrorDegrees);
    }
  }
  if (report.firstAssetsScanSeconds) {
    std::printf("\nfirst assets after %.1f s of scanning (from %s); %zu update(s) in all\n",
                *report.firstAssetsScanSeconds, report.firstLocalizer.c_str(),
                report.localization.arrivals.size());
  }
  if (report.wrongRoom) {
    std::printf("the localization session was in a room the map does not hold: %s\n",
                report.arrivals.empty() ? "no assets were handed over, as it should be"
                                        : "every asset handed over is a false relocalization");
  } else {
    std::printf(
        "positions are in the localization session's frame, which is the mapping session's %s\n",
        transformInWords(report.scenario.localizationFromMapping()).c_str());
  }
  std::printf("scan progress %lld (mapping) and %lld (localization): %s\n",
              static_cast<long long>(report.mapping.scanProgress),
              static_cast<long long>(report.localization.scanProgress), scanProgressNote().c_str());

  // The server's warnings (a localizer that read no frames) show whatever the verbosity.
  std::vector<std::string> answered;
  for (const ArrivalOutcome& a : report.arrivals) answered.push_back(a.localizer);
  for (const std::string& w : report.serverWarnings) {
    std::printf("%s\n", serverWarningInWords(w, answered).c_str());
  }

  const ScenarioRunOptions defaults;
  if (report.mapping.opened()) {
    std::string svgError = writeSvgReport(report, svgPath);
    if (svgError.empty()) {
      std::printf("top-down picture: %s\n", svgPath.c_str());
    } else {
      std::fprintf(stderr, "omra demo: %s\n", svgError.c_str());
    }
  }
  const std::string htmlError =
      writeHtmlReport(report, defaults.toleranceCm, defaults.toleranceDegrees, htmlPath);
  if (htmlError.empty()) {
    std::printf("report (opens in a browser): %s\n", htmlPath.c_str());
  } else {
    std::fprintf(stderr, "omra demo: %s\n", htmlError.c_str());
  }
  std::printf("finished in %.1f s\n", report.wallSeconds);
  std::printf("%s\n", verdictLine(report, defaults.toleranceCm, defaults.toleranceDegrees).c_str());
  return report.success ? 0 : 1;
}
#endif

}  // namespace omra::tools
