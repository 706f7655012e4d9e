#include "src/cloud/camera_path_model.h"

#include "src/cloud/record_item.h"

namespace omra {

TableSchema CameraPathModel::schema() {
  return {kTableName, "SessionId", KeyType::kString, kRecordIdAttribute, KeyType::kNumber};
}

CameraPathModel::CameraPathModel(std::string sessionId_, int64_t frameId_,
                                 std::map<std::string, std::string> transforms_)
    : sessionId(std::move(sessionId_)),
      frameId(frameId_),
      timestamp(wallClockSeconds()),
      transforms(std::move(transforms_)) {}

Item CameraPathModel::toItem() const {
  Item item;
  putIf(item, "SessionId", sessionId, AttributeValue::string);
  putIf(item, "FrameId", frameId, integerNumber);
  putIf(item, "Timestamp", timestamp, doubleNumber);
  putIf(item, "Transforms", transforms, AttributeValue::stringMap);
  return item;
}

std::optional<CameraPathModel> CameraPathModel::fromItem(const Item& item) {
  CameraPathModel m;
  const bool ok =
      readString(item, "SessionId", m.sessionId) && readInteger(item, "FrameId", m.frameId) &&
      readDouble(item, "Timestamp", m.timestamp) && readStringMap(item, "Transforms", m.transforms);
  if (!ok || !m.sessionId || !m.frameId) return std::nullopt;
  return m;
}

}  // namespace omra
