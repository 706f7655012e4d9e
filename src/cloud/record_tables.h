// The six record tables of the kit's data layout, for a "create tables" step and for embedded
// stores that need their tables before the first save. Plain functions; thread-safe.
#pragma once

#include <optional>
#include <vector>

#include "omrakit/platform/record_store.h"

namespace omra {

// "MapData-ImageFeatures", "MapData-SceneUnderstanding", "MapData-DetectedPlanes",
// "MapData-CameraPath", "MapData-PointCloud" (SessionId S / FrameId N) and "Transformations"
// (SessionId S / Timestamp N).
std::vector<TableSchema> recordTableSchemas();

// The five tables the kit writes (all but "Transformations", which the back end writes).
std::vector<TableSchema> kitRecordTableSchemas();

// createTable for each of the six; the first error, if any.
std::optional<StoreError> ensureRecordTables(RecordStore& store);

}  // namespace omra
