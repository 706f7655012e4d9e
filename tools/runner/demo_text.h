// The words `omra demo` and `omra replay` print: transforms in metres and degrees, what scan
// progress counts, and the final verdict. Pure functions; thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "sim/yaw_transform.h"

namespace omra::tools {

struct ScenarioReport;  // tools/runner/scenario_run.h

// "shifted (1.20, 0.00, -0.45) m and turned 37.5 degrees about the vertical".
std::string transformInWords(const sim::YawTransform& transform);

// One line saying what the scan progress number counts and when it matters.
std::string scanProgressNote();

// "PASS: ..." or "FAIL: <reason>", the demo's last line.
std::string verdictLine(const ScenarioReport& report, double toleranceCm, double toleranceDegrees);

// A warning of the in-process server as the demo and replay print it ("omra-server: warning: ...").
// A localizer that read no frames but answered later (answered lists the localizers behind the
// kit's updates) only ran before the session's first records had arrived, and the line says so.
std::string serverWarningInWords(std::string_view warning,
                                 const std::vector<std::string>& answered);

}  // namespace omra::tools
