#include "tools/runner/demo_text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "server/localizer_jobs.h"
#include "tools/runner/scenario_run.h"

namespace omra::tools {

std::string transformInWords(const sim::YawTransform& t) {
  double degrees = std::remainder(t.theta * 180.0 / std::numbers::pi, 360.0);
  if (degrees == -180.0) degrees = 180.0;
  char buffer[160];
  std::snprintf(buffer, sizeof buffer,
                "shifted (%.2f, %.2f, %.2f) m and turned %.1f degrees about the vertical", t.tx,
                t.ty, t.tz, degrees);
  return buffer;
}

std::string scanProgressNote() {
  return "scan progress counts what helps relocalize: the first floor or table, up to two walls "
         "and objects in new places; a localization session asks for image matching at 1 and "
         "for a plane-and-object transform at 4";
}

std::string verdictLine(const ScenarioReport& report, double toleranceCm, double toleranceDegrees) {
  if (!report.success) return "FAIL: " + report.failure;
  if (report.wrongRoom) return "PASS: no assets handed over in a room the map does not hold";
  char buffer[160];
  std::snprintf(buffer, sizeof buffer, "PASS: all %zu assets came back within %g cm and %g degrees",
                report.assets.size(), toleranceCm, toleranceDegrees);
  return buffer;
}

std::string serverWarningInWords(std::string_view warning,
                                 const std::vector<std::string>& answered) {
  std::string out = "omra-server: " + std::string(warning);
  // "warning: NAME for session ...".
  const std::string_view prefix = server::kWarningPrefix;
  if (warning.substr(0, prefix.size()) != prefix) return out;
  const std::string_view rest = warning.substr(prefix.size());
  const std::string_view localizer = rest.substr(0, rest.find(' '));
  if (localizer.empty() ||
      std::find(answered.begin(), answered.end(), localizer) == answered.end()) {
    return out;
  }
  return out + " (a later " + std::string(localizer) +
         " run found a transform: this one ran before the session's records had arrived)";
}

}  // namespace omra::tools
