#include "src/cloud/scene_understanding_model.h"

#include "src/cloud/record_item.h"

namespace omra {

TableSchema SceneUnderstandingModel::schema() {
  return {kTableName, "SessionId", KeyType::kString, kRecordIdAttribute, KeyType::kNumber};
}

SceneUnderstandingModel::SceneUnderstandingModel(std::string sessionId_, int64_t frameId_,
                                                 float positionX_, float positionY_,
                                                 float positionZ_, std::string objectName_,
                                                 float confidence_, int64_t objectId_,
                                                 bool isLocalizationSession_)
    : sessionId(std::move(sessionId_)),
      frameId(frameId_),
      positionX(positionX_),
      positionY(positionY_),
      positionZ(positionZ_),
      objectName(std::move(objectName_)),
      confidence(confidence_),
      objectId(objectId_),
      timestamp(wallClockSeconds()),
      isLocalizationSession(isLocalizationSession_) {}

Item SceneUnderstandingModel::toItem() const {
  Item item;
  putIf(item, "SessionId", sessionId, AttributeValue::string);
  putIf(item, "FrameId", frameId, integerNumber);
  putIf(item, "PositionX", positionX, floatNumber);
  putIf(item, "PositionY", positionY, floatNumber);
  putIf(item, "PositionZ", positionZ, floatNumber);
  putIf(item, "ObjectName", objectName, AttributeValue::string);
  putIf(item, "Confidence", confidence, floatNumber);
  putIf(item, "ObjectId", objectId, integerNumber);
  putIf(item, "Timestamp", timestamp, doubleNumber);
  putIf(item, "IsLocalizationSession", isLocalizationSession, flagNumber);
  return item;
}

std::optional<SceneUnderstandingModel> SceneUnderstandingModel::fromItem(const Item& item) {
  SceneUnderstandingModel m;
  const bool ok =
      readString(item, "SessionId", m.sessionId) && readInteger(item, "FrameId", m.frameId) &&
      readFloat(item, "PositionX", m.positionX) && readFloat(item, "PositionY", m.positionY) &&
      readFloat(item, "PositionZ", m.positionZ) && readString(item, "ObjectName", m.objectName) &&
      readFloat(item, "Confidence", m.confidence) && readInteger(item, "ObjectId", m.objectId) &&
      readDouble(item, "Timestamp", m.timestamp) &&
      readFlag(item, "IsLocalizationSession", m.isLocalizationSession);
  if (!ok || !m.sessionId || !m.frameId) return std::nullopt;
  return m;
}

}  // namespace omra
