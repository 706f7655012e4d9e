#include "src/cloud/transform_result_model.h"

#include "src/cloud/record_item.h"

namespace omra {

TableSchema TransformResultModel::schema() {
  return {kTableName, "SessionId", KeyType::kString, "Timestamp", KeyType::kNumber};
}

Item TransformResultModel::toItem() const {
  Item item;
  putIf(item, "SessionId", sessionId, AttributeValue::string);
  putIf(item, "Timestamp", timestamp, doubleNumber);
  putIf(item, "MatchValue", matchValue, AttributeValue::string);
  putIf(item, "Transform", transform, AttributeValue::string);
  putIf(item, "Localizer", localizer, AttributeValue::string);
  putIf(item, "Suppress", suppress, flagNumber);
  return item;
}

std::optional<TransformResultModel> TransformResultModel::fromItem(const Item& item) {
  TransformResultModel m;
  const bool ok =
      readString(item, "SessionId", m.sessionId) && readDouble(item, "Timestamp", m.timestamp) &&
      readString(item, "MatchValue", m.matchValue) && readString(item, "Transform", m.transform) &&
      readString(item, "Localizer", m.localizer) && readFlag(item, "Suppress", m.suppress);
  if (!ok) return std::nullopt;
  return m;
}

}  // namespace omra
