#include "src/cloud/record_tables.h"

#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/cloud/transform_result_model.h"

namespace omra {

std::vector<TableSchema> recordTableSchemas() {
  return {ImageFeaturesModel::schema(), SceneUnderstandingModel::schema(),
          DetectedPlaneModel::schema(), CameraPathModel::schema(),
          PointCloudModel::schema(),    TransformResultModel::schema()};
}

std::vector<TableSchema> kitRecordTableSchemas() {
  std::vector<TableSchema> kit = recordTableSchemas();
  std::erase_if(kit,
                [](const TableSchema& s) { return s.name == TransformResultModel::kTableName; });
  return kit;
}

std::optional<StoreError> ensureRecordTables(RecordStore& store) {
  for (const TableSchema& schema : recordTableSchemas()) {
    if (auto error = store.createTable(schema)) return error;
  }
  return std::nullopt;
}

}  // namespace omra
