#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "omrakit/geometry.h"
#include "omrakit/platform/record_store.h"
#include "src/cloud/record_item.h"

namespace omra {

// The feature points of one block of up to 180 frame numbers ("MapData-PointCloud"); it has no
// Timestamp. Plain value; not thread-safe to mutate concurrently.
class PointCloudModel {
 public:
  using FramesToFeatureIds = std::map<int64_t, std::vector<uint64_t>>;
  using IdToFeature = std::unordered_map<uint64_t, Float3>;

  static constexpr const char* kTableName = "MapData-PointCloud";
  static std::string dynamoDBTableName() { return kTableName; }
  static std::string hashKeyAttribute() { return "SessionId"; }
  static std::string rangeKeyAttribute() { return kRecordIdAttribute; }
  static TableSchema schema();

  PointCloudModel() = default;
  // Builds both texts and compresses them.
  PointCloudModel(std::string sessionId, int64_t frameId, const FramesToFeatureIds& frames,
                  const IdToFeature& features);

  // "{40:[12,99],41:[99]}": frame numbers to feature identifiers, in the dictionary's order.
  static std::string framesText(const FramesToFeatureIds& frames);
  // "{99:[0.5,-1.25,2.0]}": identifiers to points, in the dictionary's order.
  static std::string featuresText(const IdToFeature& features);

  Item toItem() const;
  static std::optional<PointCloudModel> fromItem(const Item& item);
  bool operator==(const PointCloudModel&) const = default;

  std::optional<std::string> sessionId;
  std::optional<int64_t> frameId;
  std::optional<std::string> framesToFeatureIdC;  // compressed bytes
  std::optional<std::string> featuresC;           // compressed bytes
};

}  // namespace omra
