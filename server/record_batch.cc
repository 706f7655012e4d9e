#include "server/record_batch.h"

#include "server/ids.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/item_checks.h"

namespace omra::server {
namespace {

// What one table's records must carry beyond the keys and "FrameId", by the model's reading:
// the reason when the item is not a record of that table.
using RecordCheck = std::optional<std::string> (*)(const Item&);

std::optional<std::string> imageFeatures(const Item& item) {
  auto m = ImageFeaturesModel::fromItem(item);
  if (!m) return "not an image-features record";
  if (!m->featuresC) return "\"Features_C\" is missing";
  return std::nullopt;
}

std::optional<std::string> sceneUnderstanding(const Item& item) {
  auto m = SceneUnderstandingModel::fromItem(item);
  if (!m) return "not a scene-understanding record";
  if (!m->objectId || !m->objectName || !m->positionX || !m->positionY || !m->positionZ) {
    return "needs \"ObjectId\", \"ObjectName\", \"PositionX\", \"PositionY\" and \"PositionZ\"";
  }
  return std::nullopt;
}

std::optional<std::string> detectedPlanes(const Item& item) {
  auto m = DetectedPlaneModel::fromItem(item);
  if (!m) return "not a detected-plane record";
  if (!m->planeId) return "\"PlaneId\" is missing";
  return std::nullopt;
}

std::optional<std::string> cameraPath(const Item& item) {
  auto m = CameraPathModel::fromItem(item);
  if (!m) return "not a camera-path record";
  if (!m->transforms) return "\"Transforms\" is missing";
  return std::nullopt;
}

std::optional<std::string> pointCloud(const Item& item) {
  auto m = PointCloudModel::fromItem(item);
  if (!m) return "not a point-cloud record";
  if (!m->framesToFeatureIdC || !m->featuresC) {
    return "needs \"FramesToFeatureId_C\" and \"Features_C\"";
  }
  return std::nullopt;
}

struct RecordTable {
  const char* name;
  RecordCheck check;
};
constexpr RecordTable kTables[] = {
    {ImageFeaturesModel::kTableName, imageFeatures},
    {SceneUnderstandingModel::kTableName, sceneUnderstanding},
    {DetectedPlaneModel::kTableName, detectedPlanes},
    {CameraPathModel::kTableName, cameraPath},
    {PointCloudModel::kTableName, pointCloud},
};

const RecordTable* findTable(std::string_view name) {
  for (const RecordTable& t : kTables) {
    if (name == t.name) return &t;
  }
  return nullptr;
}

// The reason the item cannot be stored in table t, or none.
std::optional<std::string> checkRecord(const RecordTable& t, const Json& request, Item* out) {
  if (!request.is_object() || request.size() != 1 || !request.contains("PutRequest")) {
    return "must be an object holding only \"PutRequest\"";
  }
  const Json& put = request["PutRequest"];
  if (!put.is_object() || !put.contains("Item")) return "\"PutRequest\" must hold an \"Item\"";
  std::string why;
  std::optional<Item> item = itemFromJson(put["Item"], &why);
  if (!item) return "the item is not readable: " + why;
  std::optional<std::string> session;
  std::optional<int64_t> recordId, frameId;
  if (!readString(*item, "SessionId", session) || !session) {
    return "\"SessionId\" must be a string";
  }
  if (!looksLikeUuid(*session)) return "\"SessionId\" must be a session UUID";
  if (!readInteger(*item, kRecordIdAttribute, recordId) || !recordId || *recordId < 1) {
    return "\"RecordId\" must be a positive integer";
  }
  if (!readInteger(*item, "FrameId", frameId) || !frameId) {
    return "\"FrameId\" must be an integer";
  }
  if (auto e = checkItemContents(*item)) return e->message;
  if (auto bad = t.check(*item)) return bad;
  *out = std::move(*item);
  return std::nullopt;
}

}  // namespace

bool isRecordTable(std::string_view table) { return findTable(table) != nullptr; }

RecordBatch parseRecordBatch(std::string_view body, std::optional<BatchProblem>* problem) {
  RecordBatch batch;
  problem->reset();
  auto fail = [&](std::string message, std::optional<std::string> table = std::nullopt,
                  size_t index = 0) {
    *problem = BatchProblem{std::move(message), std::move(table), index};
    return RecordBatch{};
  };
  if (body.size() > kMaxBatchBodyBytes) {
    return fail("Request body over " + std::to_string(kMaxBatchBodyBytes) + " bytes");
  }
  const Json json = Json::parse(body, nullptr, false);
  if (json.is_discarded()) return fail("Request body is not JSON");
  if (!json.is_object()) return fail("Request body must be a JSON object");
  const auto requestItems = json.find("RequestItems");
  if (requestItems == json.end() || !requestItems->is_object()) {
    return fail("\"RequestItems\" must be an object of tables");
  }
  for (const auto& [name, list] : requestItems->items()) {
    const RecordTable* table = findTable(name);
    if (table == nullptr) return fail("Unknown record table \"" + name + "\"");
    if (!list.is_array()) return fail("\"" + name + "\" must be an array of write requests");
    for (size_t i = 0; i < list.size(); ++i) {
      Item item;
      if (auto why = checkRecord(*table, list[i], &item)) {
        return fail(name + "[" + std::to_string(i) + "]: " + *why, name, i);
      }
      batch.items.push_back({name, std::move(item)});
      batch.indexes.push_back(i);
    }
  }
  if (batch.items.empty()) return fail("The batch holds no items");
  return batch;
}

}  // namespace omra::server
