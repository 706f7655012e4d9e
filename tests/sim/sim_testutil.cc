#include "tests/sim/sim_testutil.h"

namespace omra::sim::testing {

ScenarioOptions shortScenarioOptions(uint64_t seed) {
  ScenarioOptions o;
  o.seed = seed;
  o.mappingSeconds = 4;
  o.localizationSeconds = 3;
  return o;
}

const Scenario& shortScenario() {
  static const Scenario s = makeScenario(shortScenarioOptions(7));
  return s;
}

}  // namespace omra::sim::testing
