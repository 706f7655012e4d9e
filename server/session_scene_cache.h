// The localization sessions of recent runs, keyed by session identifier: each session's records
// parsed so far (a run reads only those stored since the previous run) and the map rows its frames
// were already matched to, so that a run's cost grows with what the session added, not with the
// session or the map. The least recently used sessions go when the cache holds more than its
// bound. Owned by the service that runs the localizers; thread-safe.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "server/localizers/image_matcher.h"
#include "server/localizers/map_index.h"
#include "server/session_record_log.h"

namespace omra::server {

class SessionSceneCache {
 public:
  explicit SessionSceneCache(size_t maxBytes = size_t{256} << 20) : maxBytes_(maxBytes) {}

  struct View {
    SessionScene scene;
    std::shared_ptr<NeighbourMemo> memo;
    size_t newRecords = 0;  // records this call read
  };
  // The session as of this call (with images false, without frames).
  View get(RecordStore& store, const std::string& sessionId, bool images,
           std::optional<StoreError>* error);

  size_t entries() const;
  size_t bytes() const;

 private:
  struct Entry {
    explicit Entry(const std::string& sessionId) : log(sessionId) {}
    std::mutex mutex;      // held while the log is read or brought up to date
    SessionRecordLog log;  // guarded by mutex
    std::shared_ptr<NeighbourMemo> memo = std::make_shared<NeighbourMemo>();
  };
  struct Slot {
    std::shared_ptr<Entry> entry;
    size_t bytes = 0;
    std::list<std::string>::iterator use;
  };
  void account(const std::string& sessionId, const std::shared_ptr<Entry>& entry, size_t bytes);

  const size_t maxBytes_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, Slot> slots_;  // guarded by mutex_
  std::list<std::string> lru_;                   // most recent first; guarded by mutex_
  size_t bytes_ = 0;                             // guarded by mutex_
};

}  // namespace omra::server
