// Shared simulated scenes and readers for the simulator tests: scenes are built once per process,
// then read-only.
#pragma once

#include <map>
#include <vector>

#include "sim/scenario.h"

namespace omra::sim::testing {

// A short scenario (4 s mapping, 3 s localization) of seed 7.
const Scenario& shortScenario();
ScenarioOptions shortScenarioOptions(uint64_t seed);

// The frames of a recording, in order.
std::vector<const RecordedFrame*> framesOf(const Recording& r);
// Room object id -> frames it was detected in.
std::map<int, int> detectionCounts(const Recording& r);
// Where a recorded camera really was, in the session's frame (the path replayed from the options).
std::vector<Vec3> truePositions(const Room& room, const Recording& r, const SessionOptions& s);

}  // namespace omra::sim::testing
