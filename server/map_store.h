// Typed access to the back end's tables over the configured record store. Holds no state of its
// own beyond a lock per map for placement updates; thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "src/cloud/transform_result_model.h"

namespace omra::server {

struct GeoLocation {
  double longitude = 0, latitude = 0, altitude = 0, horizontalAccuracy = 0, verticalAccuracy = 0;
};

// "account" everywhere below is the account's stored hash (accountHash), never the digest.
struct MapRecord {
  std::string uuid, appId, account, userId, mapId;
  int64_t createdMicros = 0;
  std::optional<GeoLocation> location;
};

struct LocalizationSessionRecord {
  std::string uuid, mapUuid, appId, account, userId;
  int64_t createdMicros = 0;
};

struct PlacementRecord {
  std::string assetId;
  double x = 0, y = 0, z = 0, orientation = 0;
  std::string placementId;
  double timestamp = 0;           // the client's time of the placement request
  int64_t firstPlacedMicros = 0;  // keeps the asset's place in the listing when it is moved
};

// A write that did not happen: one of its items breaks the store's rules (too large, say: the
// client's doing), or the store failed.
struct WriteFailure {
  bool itemRefused = false;
  StoreError error;
};

class MapStore {
 public:
  explicit MapStore(RecordStore& store) : store_(store) {}

  // Writes the map and its two lookups together.
  std::optional<WriteFailure> addMap(const MapRecord& map);
  std::optional<MapRecord> map(const std::string& uuid, std::optional<StoreError>* error);
  // The newest map of the account with that app and map name.
  std::optional<MapRecord> newestMap(const std::string& appId, const std::string& account,
                                     const std::string& mapId, std::optional<StoreError>* error);
  // Every map of the account and app, newest first.
  std::vector<MapRecord> accountMaps(const std::string& appId, const std::string& account,
                                     std::optional<StoreError>* error);

  std::optional<StoreError> addSession(const LocalizationSessionRecord& session);
  std::optional<LocalizationSessionRecord> session(const std::string& uuid,
                                                   std::optional<StoreError>* error);

  // Stores the placements on the map together; an asset placed before keeps its first-placed
  // time.
  std::optional<WriteFailure> place(const std::string& mapUuid,
                                    std::vector<PlacementRecord> placements);
  // The map's placements in the order their assets were first placed.
  std::vector<PlacementRecord> placements(const std::string& mapUuid,
                                          std::optional<StoreError>* error);

  // The result of that localizer for the session with the highest match value, not suppressed.
  std::optional<TransformResultModel> bestTransform(const std::string& sessionId,
                                                    const std::string& localizer,
                                                    std::optional<StoreError>* error);
  std::optional<StoreError> addTransform(const TransformResultModel& result);

  RecordStore& records() { return store_; }

 private:
  // Items over the store's limits are refused before anything is written.
  std::optional<WriteFailure> write(const std::vector<TableItem>& items);

  RecordStore& store_;
  std::array<std::mutex, 32> placementLocks_;
};

// Lookup keys: the parts as a JSON array text, which no choice of parts can make ambiguous.
std::string nameKey(const std::string& appId, const std::string& account, const std::string& mapId);
std::string accountKey(const std::string& appId, const std::string& account);

}  // namespace omra::server
