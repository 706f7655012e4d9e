#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "omrakit/platform/record_store.h"
#include "src/cloud/record_item.h"

namespace omra {

// One plane event: added, updated or removed ("MapData-DetectedPlanes"). Plain value; not
// thread-safe to mutate concurrently.
class DetectedPlaneModel {
 public:
  static constexpr const char* kTableName = "MapData-DetectedPlanes";
  static std::string dynamoDBTableName() { return kTableName; }
  static std::string hashKeyAttribute() { return "SessionId"; }
  static std::string rangeKeyAttribute() { return kRecordIdAttribute; }
  static TableSchema schema();

  DetectedPlaneModel() = default;
  // Note the order: vertices before the flag, the transform matrix after it. Timestamp is now.
  DetectedPlaneModel(std::string sessionId, int64_t frameId, std::string planeId,
                     std::optional<std::string> alignment, std::optional<std::string> vertices,
                     bool isLocalizationSession, std::optional<std::string> transformMatrix,
                     bool isRemoved);
  // For removal records: no alignment, transform or vertices.
  DetectedPlaneModel(std::string sessionId, int64_t frameId, std::string planeId,
                     bool isLocalizationSession, bool isRemoved);

  Item toItem() const;
  static std::optional<DetectedPlaneModel> fromItem(const Item& item);
  bool operator==(const DetectedPlaneModel&) const = default;

  std::optional<std::string> sessionId;
  std::optional<int64_t> frameId;
  std::optional<std::string> planeId;
  std::optional<double> timestamp;
  std::optional<std::string> alignment;
  std::optional<std::string> transformMatrix;
  std::optional<std::string> vertices;
  std::optional<bool> isLocalizationSession;
  std::optional<bool> isRemoved;
};

}  // namespace omra
