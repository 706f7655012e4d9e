#include "server/server_tables.h"

#include "src/cloud/record_tables.h"

namespace omra::server {

std::vector<TableSchema> serverTableSchemas() {
  return {
      {kMapsTable, "MapUuid", KeyType::kString, std::nullopt, KeyType::kNumber},
      {kMapsByNameTable, "NameKey", KeyType::kString, "Created", KeyType::kNumber, true},
      {kMapsByAccountTable, "AccountKey", KeyType::kString, "Created", KeyType::kNumber, true},
      {kMapsByCellTable, "CellKey", KeyType::kString, "MapUuid", KeyType::kString, true},
      {kNearbyIndexedTable, "AccountKey", KeyType::kString, std::nullopt, KeyType::kNumber},
      {kPlacementsTable, "MapUuid", KeyType::kString, "AssetId", KeyType::kString, true},
      {kLocalizationSessionsTable, "SessionUuid", KeyType::kString, std::nullopt, KeyType::kNumber},
  };
}

std::vector<TableSchema> allTableSchemas() {
  std::vector<TableSchema> all = recordTableSchemas();
  for (TableSchema& s : serverTableSchemas()) all.push_back(std::move(s));
  return all;
}

std::optional<StoreError> createAllTables(RecordStore& store) {
  for (const TableSchema& schema : allTableSchemas()) {
    if (auto error = store.createTable(schema)) return error;
  }
  return std::nullopt;
}

}  // namespace omra::server
