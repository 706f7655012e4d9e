#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "omrakit/platform/record_store.h"
#include "src/cloud/record_item.h"

namespace omra {

// One detected object in one frame ("MapData-SceneUnderstanding"). Plain value; not thread-safe to
// mutate concurrently.
class SceneUnderstandingModel {
 public:
  static constexpr const char* kTableName = "MapData-SceneUnderstanding";
  static std::string dynamoDBTableName() { return kTableName; }
  static std::string hashKeyAttribute() { return "SessionId"; }
  static std::string rangeKeyAttribute() { return kRecordIdAttribute; }
  static TableSchema schema();

  SceneUnderstandingModel() = default;
  // Timestamp is now.
  SceneUnderstandingModel(std::string sessionId, int64_t frameId, float positionX, float positionY,
                          float positionZ, std::string objectName, float confidence,
                          int64_t objectId, bool isLocalizationSession);

  Item toItem() const;
  static std::optional<SceneUnderstandingModel> fromItem(const Item& item);
  bool operator==(const SceneUnderstandingModel&) const = default;

  std::optional<std::string> sessionId;
  std::optional<int64_t> frameId;
  std::optional<float> positionX, positionY, positionZ;
  std::optional<std::string> objectName;
  std::optional<float> confidence;
  std::optional<int64_t> objectId;
  std::optional<double> timestamp;
  std::optional<bool> isLocalizationSession;
};

}  // namespace omra
