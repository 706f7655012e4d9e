#include <cstdio>

#include "sim/recording_io.h"
#include "sim/scenario.h"
#include "tools/commands.h"

namespace omra::tools {

int runRecord(const RecordOptions& options) {
  if (options.role != "mapping" && options.role != "localization") {
    std::fprintf(stderr, "omra record: --session must be mapping or localization\n");
    return 1;
  }
  sim::ScenarioOptions scenario;
  scenario.seed = options.seed;
  std::string error;
  if (!applySceneConditions(options.conditions, scenario, &error)) {
    std::fprintf(stderr, "omra record: %s\n", error.c_str());
    return 1;
  }
  const bool mapping = options.role == "mapping";
  if (options.seconds > 3600) {
    std::fprintf(stderr, "omra record: --seconds is limited to 3600\n");
    return 1;
  }
  if (options.seconds > 0) {
    (mapping ? scenario.mappingSeconds : scenario.localizationSeconds) = options.seconds;
  }
  const sim::SessionOptions session =
      mapping ? sim::mappingSessionOptions(scenario) : sim::localizationSessionOptions(scenario);
  std::fprintf(stderr, "simulating the %s session of scene %llu (%.0f s at %.0f frames/s)...\n",
               options.role.c_str(), static_cast<unsigned long long>(options.seed), session.seconds,
               session.fps);
  // The whole scene: a localization session may depend on the mapping one (its path, the room
  // as it was changed in between).
  const sim::Scenario scene = sim::makeScenario(scenario);
  const sim::Recording& recording = mapping ? *scene.mapping : *scene.localization;
  error = sim::writeRecordingFile(recording, options.path);
  if (!error.empty()) {
    std::fprintf(stderr, "omra record: %s\n", error.c_str());
    return 1;
  }
  std::printf("wrote %s: %zu frames, %zu events, %zu room objects; session_from_room %s%s\n",
              options.path.c_str(), recording.frameCount(), recording.events.size(),
              recording.truth->room.objects.size(),
              recording.truth->sessionFromRoom.toText().c_str(),
              scene.wrongRoom && !mapping ? " (a room the map does not hold)" : "");
  return 0;
}

}  // namespace omra::tools
