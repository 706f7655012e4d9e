#pragma once

#include <optional>
#include <string>

#include "omrakit/platform/record_store.h"

namespace omra {

// One relocalization result written by the back end ("Transformations"); the kit only declares it.
// Plain value; every attribute optional. Not thread-safe to mutate concurrently.
class TransformResultModel {
 public:
  static constexpr const char* kTableName = "Transformations";
  static std::string dynamoDBTableName() { return kTableName; }
  static std::string hashKeyAttribute() { return "SessionId"; }
  static std::string rangeKeyAttribute() { return "Timestamp"; }
  static TableSchema schema();

  Item toItem() const;
  static std::optional<TransformResultModel> fromItem(const Item& item);
  bool operator==(const TransformResultModel&) const = default;

  std::optional<std::string> sessionId;
  std::optional<double> timestamp;
  std::optional<std::string> matchValue;
  std::optional<std::string> transform;
  std::optional<std::string> localizer;
  std::optional<bool> suppress;
};

}  // namespace omra
