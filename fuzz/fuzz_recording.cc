// Recording files (JSON lines): a refusal names a line, and what is read can be written again.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "sim/recording_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  const omra::sim::RecordingReadResult r = omra::sim::readRecording(in);
  if (!r.recording) {
    if (r.error.rfind("line ", 0) != 0) __builtin_trap();
    return 0;
  }
  std::ostringstream out;
  omra::sim::writeRecording(*r.recording, out);
  return 0;
}
