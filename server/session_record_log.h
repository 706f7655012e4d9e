// One session's records parsed as they arrive: each update() reads only the records stored since
// the previous one and folds them into what was read before, so that reading a session costs what
// arrived since, not the whole session. Records that arrive late with a lower "RecordId" (a batch
// retried after a later one) are caught: while the record identifiers seen across the five tables
// leave a gap, updates read again from the gap and skip what they already hold. This relies on the
// kit's numbering: one sequence per session across the five tables. A record stored again under
// its key is taken to be the same record (the kit re-sends items unchanged).
// Owned by SessionSceneCache (one per cached session); not thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "server/localizers/map_index.h"
#include "server/session_records.h"
#include "src/cloud/detected_plane_model.h"

namespace omra::server {

class SessionRecordLog {
 public:
  explicit SessionRecordLog(std::string sessionId) : sessionId_(std::move(sessionId)) {}

  // Reads what is new; on a store error the records read before the error are kept and the next
  // update goes on from there.
  void update(RecordStore& store, std::optional<StoreError>* error);
  // The session as readSessionScene would read it now; with images false, without frames.
  SessionScene scene(bool images) const;

  size_t records() const;
  size_t bytes() const;
  // Whether the identifiers seen so far leave a gap (so the next update reads again from it).
  bool hasGap() const { return !ahead_.empty(); }

 private:
  static constexpr size_t kTables = 5;
  struct Table {
    std::optional<Item> after;  // the last key read
    std::set<int64_t> seen;     // record identifiers read
  };
  void take(size_t table, int64_t recordId, const Item& item);
  void note(int64_t recordId);

  const std::string sessionId_;
  std::array<Table, kTables> tables_;
  // Every identifier up to contiguous_ was seen in some table; ahead_: those seen beyond it.
  int64_t contiguous_ = 0;
  std::set<int64_t> ahead_;

  // Each kept in "RecordId" order (a record that arrives late takes its place), with the
  // identifiers beside it, so that the folds see the order a full read sees.
  std::vector<int64_t> observationIds_;
  std::vector<ObjectObservation> observations_;
  ReadStats objectStats_;
  std::vector<int64_t> planeEventIds_;
  std::vector<DetectedPlaneModel> planeEvents_;
  size_t planesSkipped_ = 0;
  std::map<uint64_t, std::pair<int64_t, Vec3>> points_;  // point -> (record, newest position)
  ReadStats pointStats_;
  std::map<int64_t, std::pair<int64_t, Mat4>> poses_;  // frame -> (record, pose)
  std::vector<int64_t> frameIds_;
  std::vector<FrameFeatures> frames_;
  ReadStats frameStats_;
  size_t featureValues_ = 0;
};

}  // namespace omra::server
