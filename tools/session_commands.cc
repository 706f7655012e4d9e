// Without omra-server in the build, the kit-driving commands say so; otherwise they live in
// demo_command.cc and runner/replay_command.cc.
#include <cstdio>

#include "tools/commands.h"

namespace omra::tools {

#ifndef OMRA_HAVE_SERVER
int runDemo(const DemoOptions&) {
  std::fprintf(stderr, "omra demo: this build has no omra-server\n");
  return 2;
}

int runReplay(const ReplayOptions&) {
  std::fprintf(stderr, "omra replay: this build has no omra-server\n");
  return 2;
}
#endif

}  // namespace omra::tools
