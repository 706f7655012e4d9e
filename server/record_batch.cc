#include "server/record_batch.h"

#include "server/ids.h"
#include "server/record_batch_reader.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"
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

// The reason the item cannot be stored in that table, or none.
std::optional<std::string> checkRecord(const std::string& table, size_t, Item& item) {
  const RecordTable* t = findTable(table);
  if (t == nullptr) return "not a record table";  // the reader checked the table already
  std::optional<std::string> session;
  std::optional<int64_t> recordId, frameId;
  if (!readString(item, "SessionId", session) || !session) {
    return "\"SessionId\" must be a string";
  }
  if (!looksLikeUuid(*session)) return "\"SessionId\" must be a session UUID";
  if (!readInteger(item, kRecordIdAttribute, recordId) || !recordId || *recordId < 1) {
    return "\"RecordId\" must be a positive integer";
  }
  if (!readInteger(item, "FrameId", frameId) || !frameId) {
    return "\"FrameId\" must be an integer";
  }
  if (auto e = checkItemContents(item)) return e->message;
  return t->check(item);
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
  RecordBatchReader reader(body, checkRecord);
  if (!reader.read()) {
    RecordBatchReader::Fault f = reader.fault();
    return fail(std::move(f.message), std::move(f.table), f.index);
  }
  batch.items = std::move(reader.items());
  batch.indexes = reader.indexes();
  return batch;
}

}  // namespace omra::server
