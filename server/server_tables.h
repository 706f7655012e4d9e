// The back end's own tables (maps, their lookups, placements, localization sessions) next to the
// kit's record tables. Plain functions; thread-safe.
#pragma once

#include <optional>
#include <vector>

#include "omrakit/platform/record_store.h"

namespace omra::server {

inline constexpr const char* kMapsTable = "OmraServer-Maps";
// Maps by (app, developer key, map name), newest first: the map a localization session opens.
inline constexpr const char* kMapsByNameTable = "OmraServer-MapsByName";
// Maps by (app, developer key), newest first: every map of an account.
inline constexpr const char* kMapsByAccountTable = "OmraServer-MapsByAccount";
// The nearby-maps index: one entry per located map and grid level, keyed by (app, developer key,
// cell) and the map's UUID.
inline constexpr const char* kMapsByCellTable = "OmraServer-MapsByCell";
// One item per (app, developer key) whose maps are all in the nearby index.
inline constexpr const char* kNearbyIndexedTable = "OmraServer-NearbyIndexed";
inline constexpr const char* kPlacementsTable = "OmraServer-Placements";
inline constexpr const char* kLocalizationSessionsTable = "OmraServer-LocalizationSessions";

std::vector<TableSchema> serverTableSchemas();
// The record tables the kit writes plus the server's own.
std::vector<TableSchema> allTableSchemas();
// Creates every table of allTableSchemas() that does not exist yet; the first error, if any.
std::optional<StoreError> createAllTables(RecordStore& store);

}  // namespace omra::server
