// The map indexes of recent runs, keyed by map identifier, so that a map's records are read and
// its indexes built once rather than at every run. An entry is rebuilt when new records arrived
// under the map since it was built (a cheap look past the newest record of each table), and the
// least recently used entries go when the cache holds more than its bound. One map is built by one
// caller at a time: others asking for it meanwhile wait for that build rather than repeat it.
// Owned by the service that runs the localizers; thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "server/localizers/map_index.h"

namespace omra::server {

class MapIndexCache {
 public:
  explicit MapIndexCache(size_t maxBytes = size_t{1} << 30) : maxBytes_(maxBytes) {}

  // The map's index, fresh as of this call; *built tells whether it had to be built.
  std::shared_ptr<const MapIndex> get(RecordStore& store, const std::string& mapId,
                                      std::optional<StoreError>* error, bool* built = nullptr);

  size_t entries() const;
  size_t bytes() const;

 private:
  static constexpr size_t kTables = 5;
  using NewestKeys = std::array<std::optional<Item>, kTables>;
  struct Entry {
    std::shared_ptr<const MapIndex> index;
    NewestKeys newest;
    size_t bytes = 0;
    std::list<std::string>::iterator use;
  };
  static NewestKeys newestKeys(RecordStore& store, const std::string& mapId,
                               std::optional<StoreError>* error);
  static bool grewSince(RecordStore& store, const std::string& mapId, const NewestKeys& newest,
                        std::optional<StoreError>* error);

  // The map's build lock, shared by whoever builds it now; dropped by the last of them.
  std::shared_ptr<std::mutex> buildLock(const std::string& mapId);
  void dropBuildLock(const std::string& mapId, std::shared_ptr<std::mutex>& lock);
  // The cached entry when it is still fresh (nothing new under the map since it was built).
  std::shared_ptr<const MapIndex> fresh(RecordStore& store, const std::string& mapId,
                                        std::optional<StoreError>* error);

  const size_t maxBytes_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<std::mutex>> building_;  // guarded by mutex_
  std::unordered_map<std::string, Entry> entries_;                         // guarded by mutex_
  std::list<std::string> lru_;  // most recent first; guarded by mutex_
  size_t bytes_ = 0;            // guarded by mutex_
};

}  // namespace omra::server
