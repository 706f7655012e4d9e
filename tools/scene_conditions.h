// The options of `omra demo` and `omra record` that make the simulated world harder. Plain values
// filled by the command line on the main thread.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace omra::sim {
struct ScenarioOptions;
}

namespace omra::tools {

struct SceneConditions {
  std::vector<std::string> hard;  // condition names at their hard settings, or "all"
  double drift = 0;               // metres of tracking error per metre walked
  double yawDrift = 0;            // degrees a minute
  double depthNoise = 0;          // metres at 1 m
  double outliers = 0;            // share of points
  std::vector<double> overlap;    // min, max share of the mapped objects seen again
  int moved = 0, removed = 0, added = 0;
  bool person = false;
  int identical = 0;
  int rooms = 1;
  bool wrongRoom = false;
  bool imageDescriptor = false;
  double lightingChange = 0;
  std::vector<double> planeError;  // metres along the normal, degrees about the vertical
};

// Registers --hard, --drift, --yaw-drift, --depth-noise, --outliers, --overlap, --moved,
// --removed, --added, --person, --identical, --rooms, --wrong-room, --image-descriptor,
// --lighting-change and --plane-error on a subcommand.
void addSceneConditionOptions(CLI::App& app, SceneConditions& conditions);

// Onto the scenario: --hard first, then the single options where given. False (with a message)
// for an unknown condition name.
bool applySceneConditions(const SceneConditions& conditions, sim::ScenarioOptions& scenario,
                          std::string* error);

}  // namespace omra::tools
