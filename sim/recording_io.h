// Reading and writing recordings as JSON lines: a versioned header line, then one event per line
// (truth, feature points, plane events, frames), then an end line. Free functions without shared
// state; safe to call from any thread.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include "sim/recording.h"

namespace omra::sim {

struct RecordingReadResult {
  std::optional<Recording> recording;
  std::string error;  // "line N: ..." when recording is empty
};

// Writes the whole recording; feature points go out just before the first frame that sees them.
void writeRecording(const Recording& recording, std::ostream& out);
// Empty string on success, otherwise why the file could not be written.
std::string writeRecordingFile(const Recording& recording, const std::string& path);

// Validates everything before returning: a truncated, corrupt or newer-version file gives an
// error naming the line and no recording.
RecordingReadResult readRecording(std::istream& in);
RecordingReadResult readRecordingFile(const std::string& path);

}  // namespace omra::sim
