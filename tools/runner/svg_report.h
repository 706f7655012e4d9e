// A top-down picture of an end-to-end run in the room's frame: the room, its objects, both camera
// paths, the expected and the relocalized assets. Pure functions of the report.
#pragma once

#include <string>

#include "tools/runner/scenario_run.h"

namespace omra::tools {

// The SVG document (x to the right, z downwards, 100 px per metre).
std::string svgReport(const ScenarioReport& report);
// Writes svgReport to path; empty on success, otherwise why not.
std::string writeSvgReport(const ScenarioReport& report, const std::string& path);

}  // namespace omra::tools
