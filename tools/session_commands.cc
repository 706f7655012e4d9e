#include <cstdio>

#include "sim/recording_io.h"
#include "tools/commands.h"

namespace omra::tools {

int runDemo() {
  std::fprintf(stderr,
               "omra demo: not yet available: driving the kit's session from the simulator is not "
               "part of this build yet\n");
  return 2;
}

int runReplay(const std::string& path) {
  // Check the file first: a damaged recording is reported as such, whatever else is missing.
  sim::RecordingReadResult r = sim::readRecordingFile(path);
  if (!r.recording) {
    std::fprintf(stderr, "omra replay: %s: %s\n", path.c_str(), r.error.c_str());
    return 1;
  }
  std::fprintf(
      stderr,
      "omra replay: not yet available: %s is a valid recording (%zu frames), but replaying "
      "it through the kit's session is not part of this build yet\n",
      path.c_str(), r.recording->frameCount());
  return 2;
}

}  // namespace omra::tools
