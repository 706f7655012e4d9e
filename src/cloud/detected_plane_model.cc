#include "src/cloud/detected_plane_model.h"

#include "src/cloud/record_item.h"

namespace omra {

TableSchema DetectedPlaneModel::schema() {
  return {kTableName, "SessionId", KeyType::kString, kRecordIdAttribute, KeyType::kNumber};
}

DetectedPlaneModel::DetectedPlaneModel(std::string sessionId_, int64_t frameId_,
                                       std::string planeId_, std::optional<std::string> alignment_,
                                       std::optional<std::string> vertices_,
                                       bool isLocalizationSession_,
                                       std::optional<std::string> transformMatrix_, bool isRemoved_)
    : sessionId(std::move(sessionId_)),
      frameId(frameId_),
      planeId(std::move(planeId_)),
      timestamp(wallClockSeconds()),
      alignment(std::move(alignment_)),
      transformMatrix(std::move(transformMatrix_)),
      vertices(std::move(vertices_)),
      isLocalizationSession(isLocalizationSession_),
      isRemoved(isRemoved_) {}

DetectedPlaneModel::DetectedPlaneModel(std::string sessionId_, int64_t frameId_,
                                       std::string planeId_, bool isLocalizationSession_,
                                       bool isRemoved_)
    : sessionId(std::move(sessionId_)),
      frameId(frameId_),
      planeId(std::move(planeId_)),
      timestamp(wallClockSeconds()),
      isLocalizationSession(isLocalizationSession_),
      isRemoved(isRemoved_) {}

Item DetectedPlaneModel::toItem() const {
  Item item;
  putIf(item, "SessionId", sessionId, AttributeValue::string);
  putIf(item, "FrameId", frameId, integerNumber);
  putIf(item, "PlaneId", planeId, AttributeValue::string);
  putIf(item, "Timestamp", timestamp, doubleNumber);
  putIf(item, "Alignment", alignment, AttributeValue::string);
  putIf(item, "TransformMatrix", transformMatrix, AttributeValue::string);
  putIf(item, "Vertices", vertices, AttributeValue::string);
  putIf(item, "IsLocalizationSession", isLocalizationSession, flagNumber);
  putIf(item, "IsRemoved", isRemoved, flagNumber);
  return item;
}

std::optional<DetectedPlaneModel> DetectedPlaneModel::fromItem(const Item& item) {
  DetectedPlaneModel m;
  const bool ok =
      readString(item, "SessionId", m.sessionId) && readInteger(item, "FrameId", m.frameId) &&
      readString(item, "PlaneId", m.planeId) && readDouble(item, "Timestamp", m.timestamp) &&
      readString(item, "Alignment", m.alignment) &&
      readString(item, "TransformMatrix", m.transformMatrix) &&
      readString(item, "Vertices", m.vertices) &&
      readFlag(item, "IsLocalizationSession", m.isLocalizationSession) &&
      readFlag(item, "IsRemoved", m.isRemoved);
  if (!ok || !m.sessionId || !m.frameId) return std::nullopt;
  return m;
}

}  // namespace omra
