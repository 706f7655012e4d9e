// The records one simulated mapping session writes, measured rather than assumed: a mapping
// recording of the simulator is fed through an OmraSession in real time (60 frames/s, raw feature
// points on) against an in-process omra-server, and every record the kit saves is captured with
// its time. Shared by the record benchmarks. Plain functions; not thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"

namespace omra::bench {

struct SessionRecord {
  double seconds = 0;  // since the session's first record
  std::string table;
  Item item;
};

struct SessionRecords {
  std::vector<SessionRecord> records;
  size_t framesFed = 0;
  double scanSeconds = 0;  // recording time the frames covered

  double recordsPerSecond() const;
  // Bytes of the records in DynamoDB JSON per second of scanning.
  double bytesPerSecond() const;
};

// Runs a simulated mapping session of that many seconds; none with *error set when it recorded
// nothing.
std::optional<SessionRecords> recordSimulatedSession(double mappingSeconds, std::string* error);

// One line per table: records and kilobytes per second of scanning.
void printSessionRates(const SessionRecords& session);

}  // namespace omra::bench
