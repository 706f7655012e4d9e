// The demo's report as one self-contained HTML page a browser opens from disk: the top-down
// picture inlined, the assets with their expected and received positions and errors, and the
// timeline of transform updates. It loads nothing and runs no script (its Content-Security-Policy
// forbids both), and every text that comes from data is escaped. Pure functions of the report.
#pragma once

#include <string>

#include "tools/runner/scenario_run.h"

namespace omra::tools {

// The tolerances are those the run was judged by (for the verdict line).
std::string htmlReport(const ScenarioReport& report, double toleranceCm, double toleranceDegrees);
// Writes htmlReport to path; empty on success, otherwise why not.
std::string writeHtmlReport(const ScenarioReport& report, double toleranceCm,
                            double toleranceDegrees, const std::string& path);

}  // namespace omra::tools
