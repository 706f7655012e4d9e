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
  bool mapping = options.role == "mapping";
  sim::SessionOptions session =
      mapping ? sim::mappingSessionOptions(scenario) : sim::localizationSessionOptions(scenario);
  if (options.seconds > 0) session.seconds = options.seconds;
  if (session.seconds > 3600) {
    std::fprintf(stderr, "omra record: --seconds is limited to 3600\n");
    return 1;
  }
  std::fprintf(stderr, "simulating the %s session of scene %llu (%.0f s at %.0f frames/s)...\n",
               options.role.c_str(), static_cast<unsigned long long>(options.seed), session.seconds,
               session.fps);
  sim::Room room = sim::makeScenarioRoom(scenario);
  sim::Recording recording = sim::simulateSession(room, scenario.seed, session);
  std::string error = sim::writeRecordingFile(recording, options.path);
  if (!error.empty()) {
    std::fprintf(stderr, "omra record: %s\n", error.c_str());
    return 1;
  }
  std::printf("wrote %s: %zu frames, %zu events, %zu room objects; session_from_room %s\n",
              options.path.c_str(), recording.frameCount(), recording.events.size(),
              room.objects.size(), recording.truth->sessionFromRoom.toText().c_str());
  return 0;
}

}  // namespace omra::tools
