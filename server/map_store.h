// Typed access to the back end's tables over the configured record store. Holds no state of its
// own beyond a lock per map for placement updates and the accounts known to be in the nearby
// index; thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "server/geo_grid.h"
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

// Where a nearby listing resumes: after this distance, then after this map UUID.
struct NearbyCursor {
  double metres = 0;
  std::string uuid;
  bool operator==(const NearbyCursor&) const = default;
};

struct NearbyQuery {
  std::string appId, account;
  GeoBox box;
  std::optional<std::string> userId;
  size_t limit = 100;
  std::optional<NearbyCursor> after;
};

struct NearbyMap {
  MapRecord map;
  double metres = 0;  // from the box's centre
};

struct NearbyPage {
  std::vector<NearbyMap> maps;       // nearest first; equal distances by UUID
  std::optional<NearbyCursor> next;  // present when more maps follow
  size_t itemsRead = 0;              // index entries read to answer
  size_t cellsRead = 0;              // index cells queried (round trips on a remote store)
};

// The paging token of the nearby listing: the cursor as text, and back (none when malformed).
std::string nearbyTokenText(const NearbyCursor& cursor);
std::optional<NearbyCursor> parseNearbyToken(std::string_view text);

// A write that did not happen: one of its items breaks the store's rules (too large, say: the
// client's doing), or the store failed.
struct WriteFailure {
  bool itemRefused = false;
  StoreError error;
};

class MapStore {
 public:
  explicit MapStore(RecordStore& store) : store_(store) {}

  // Writes the map, its two lookups and its nearby-index entries together.
  std::optional<WriteFailure> addMap(const MapRecord& map);
  std::optional<MapRecord> map(const std::string& uuid, std::optional<StoreError>* error);
  // The newest map of the account with that app and map name.
  std::optional<MapRecord> newestMap(const std::string& appId, const std::string& account,
                                     const std::string& mapId, std::optional<StoreError>* error);
  // Every map of the account and app, newest first.
  std::vector<MapRecord> accountMaps(const std::string& appId, const std::string& account,
                                     std::optional<StoreError>* error);

  // The maps of the query's account and app inside its box, nearest first, at most limit of them.
  // Reads the index cells around the centre, nearest first, and stops once no unread cell can hold
  // a nearer map: its cost follows the maps near the centre, not the account's map count.
  NearbyPage nearbyMaps(const NearbyQuery& query, std::optional<StoreError>* error);
  // Indexes the account's maps written before the nearby index existed; once per app and account
  // (remembered in the store), cheap after that.
  std::optional<StoreError> ensureNearbyIndexed(const std::string& appId,
                                                const std::string& account);
  // Every item addMap writes for the map. firstOfAccount: the account has no older map, so its
  // index is complete from the start.
  static std::vector<TableItem> mapItems(const MapRecord& map, bool firstOfAccount);

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

  bool knownIndexed(const std::string& key);
  void rememberIndexed(const std::string& key);

  RecordStore& store_;
  std::array<std::mutex, 32> placementLocks_;
  std::mutex indexedMu_;                     // guards indexed_
  std::unordered_set<std::string> indexed_;  // account keys whose maps are all in the index
};

// Lookup keys: the parts as a JSON array text, which no choice of parts can make ambiguous.
std::string nameKey(const std::string& appId, const std::string& account, const std::string& mapId);
std::string accountKey(const std::string& appId, const std::string& account);
std::string cellKey(const std::string& appId, const std::string& account, const GridCell& cell);

}  // namespace omra::server
