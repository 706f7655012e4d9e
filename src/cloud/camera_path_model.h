#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "omrakit/platform/record_store.h"
#include "src/cloud/record_item.h"

namespace omra {

// The camera poses of one block of up to 20 frame numbers ("MapData-CameraPath"). Plain value; not
// thread-safe to mutate concurrently.
class CameraPathModel {
 public:
  static constexpr const char* kTableName = "MapData-CameraPath";
  static std::string dynamoDBTableName() { return kTableName; }
  static std::string hashKeyAttribute() { return "SessionId"; }
  static std::string rangeKeyAttribute() { return kRecordIdAttribute; }
  static TableSchema schema();

  CameraPathModel() = default;
  // frameId: the block's first frame number; transforms: frame number text -> pose text.
  // Timestamp is now.
  CameraPathModel(std::string sessionId, int64_t frameId,
                  std::map<std::string, std::string> transforms);

  Item toItem() const;
  static std::optional<CameraPathModel> fromItem(const Item& item);
  bool operator==(const CameraPathModel&) const = default;

  std::optional<std::string> sessionId;
  std::optional<int64_t> frameId;
  std::optional<double> timestamp;
  std::optional<std::map<std::string, std::string>> transforms;
};

}  // namespace omra
