// Shared simulated scenes for the simulator tests: built once per process, then read-only.
#pragma once

#include "sim/scenario.h"

namespace omra::sim::testing {

// A short scenario (4 s mapping, 3 s localization) of seed 7.
const Scenario& shortScenario();
ScenarioOptions shortScenarioOptions(uint64_t seed);

}  // namespace omra::sim::testing
