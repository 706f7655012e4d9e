#include "tests/server/service_testutil.h"

#include <gtest/gtest.h>

#include "server/server_tables.h"  // allTableSchemas
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/platform/md5.h"
#include "src/platform/store/attribute_json.h"

namespace omra::server::testing {

const std::string kAccountA = md5Hex("developer key of A");
const std::string kAccountB = md5Hex("developer key of B");

Json batchJson(const std::vector<TableItem>& items) {
  Json tables = Json::object();
  for (const TableItem& t : items) {
    tables[t.table].push_back(Json{{"PutRequest", Json{{"Item", itemToJson(t.item)}}}});
  }
  return Json{{"RequestItems", std::move(tables)}};
}

std::vector<TableItem> oneOfEachRecord(const std::string& session, int64_t firstRecordId) {
  int64_t id = firstRecordId;
  auto with = [&](const char* table, Item item) {
    return TableItem{table, withRecordId(std::move(item), id++)};
  };
  return {
      with(ImageFeaturesModel::kTableName, ImageFeaturesModel(session, 4, {0.5, -1}).toItem()),
      with(SceneUnderstandingModel::kTableName,
           SceneUnderstandingModel(session, 4, 1, 0, 2, "chair", 0.9f, 7, false).toItem()),
      with(DetectedPlaneModel::kTableName,
           DetectedPlaneModel(session, 4, "PLANE-1", "horizontal", "0.1,0.0,0.2", false,
                              "1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1", false)
               .toItem()),
      with(CameraPathModel::kTableName,
           CameraPathModel(session, 0, {{"4", "1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1,"}}).toItem()),
      with(PointCloudModel::kTableName,
           PointCloudModel(session, 4, {{4, {12}}}, {{12, {0.5f, -1.25f, 2.0f}}}).toItem()),
  };
}

std::string ServiceHarness::createMap(const std::string& account, const std::string& mapId) {
  const Answer a = post(account, "/prod/maps/create_map", openingBody(account, mapId));
  EXPECT_EQ(a.status, 200) << a.body.dump();
  return a.body.value("uuid", "");
}

std::string ServiceHarness::openSession(const std::string& account, const std::string& mapId) {
  const Answer a =
      post(account, "/prod/maps/create_localization_session", openingBody(account, mapId));
  EXPECT_EQ(a.status, 200) << a.body.dump();
  return a.body.value("session_uuid", "");
}

size_t ServiceHarness::recordsOf(const std::string& session) {
  size_t n = 0;
  for (const TableSchema& t : recordTableSchemas()) {
    n += queryAll(store(), t.name, AttributeValue::string(session)).size();
  }
  return n;
}

size_t ServiceHarness::totalItems() {
  size_t n = 0;
  for (const TableSchema& t : allTableSchemas()) n += store().itemCount(t.name);
  return n;
}

}  // namespace omra::server::testing
