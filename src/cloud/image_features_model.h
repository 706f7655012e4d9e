#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "src/cloud/record_item.h"

namespace omra {

// One camera image's detector feature vector, compressed ("MapData-ImageFeatures"). Plain value;
// not thread-safe to mutate concurrently.
class ImageFeaturesModel {
 public:
  static constexpr const char* kTableName = "MapData-ImageFeatures";
  static std::string dynamoDBTableName() { return kTableName; }
  static std::string hashKeyAttribute() { return "SessionId"; }
  static std::string rangeKeyAttribute() { return kRecordIdAttribute; }
  static TableSchema schema();

  ImageFeaturesModel() = default;
  // Timestamp is now; Features_C the compressed "%f" texts of the elements joined by ",".
  ImageFeaturesModel(std::string sessionId, int64_t frameId,
                     const std::vector<double>& imageFeatures);

  // "1.000000,0.500000" for [1, 0.5]; empty for none.
  static std::string featureText(const std::vector<double>& imageFeatures);

  Item toItem() const;
  // Absent when a key is missing or an attribute has another type.
  static std::optional<ImageFeaturesModel> fromItem(const Item& item);
  bool operator==(const ImageFeaturesModel&) const = default;

  std::optional<std::string> sessionId;
  std::optional<int64_t> frameId;
  std::optional<double> timestamp;
  std::optional<std::string> featuresC;  // compressed bytes
};

}  // namespace omra
