#include "src/cloud/image_features_model.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "src/cloud/compression.h"
#include "src/cloud/record_item.h"

namespace omra {

TableSchema ImageFeaturesModel::schema() {
  return {kTableName, "SessionId", KeyType::kString, kRecordIdAttribute, KeyType::kNumber};
}

ImageFeaturesModel::ImageFeaturesModel(std::string sessionId_, int64_t frameId_,
                                       const std::vector<double>& imageFeatures)
    : sessionId(std::move(sessionId_)),
      frameId(frameId_),
      timestamp(wallClockSeconds()),
      featuresC(compressOrDie(featureText(imageFeatures))) {}

std::string ImageFeaturesModel::featureText(const std::vector<double>& imageFeatures) {
  std::string text;
  text.reserve(imageFeatures.size() * 10);
  char buf[400];  // "%f" of the largest double has 309 digits before the point
  for (size_t i = 0; i < imageFeatures.size(); ++i) {
    if (i > 0) text += ',';
    const double v = imageFeatures[i];
    if (std::isfinite(v)) {
      // Same digits as "%f" (both round correctly), without the locale and format parsing.
      const auto res = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, 6);
      text.append(buf, res.ptr);
    } else {
      const int n = std::snprintf(buf, sizeof buf, "%f", v);
      text.append(buf, static_cast<size_t>(n));
    }
  }
  return text;
}

Item ImageFeaturesModel::toItem() const {
  Item item;
  putIf(item, "SessionId", sessionId, AttributeValue::string);
  putIf(item, "FrameId", frameId, integerNumber);
  putIf(item, "Timestamp", timestamp, doubleNumber);
  putIf(item, "Features_C", featuresC, AttributeValue::bytes);
  return item;
}

std::optional<ImageFeaturesModel> ImageFeaturesModel::fromItem(const Item& item) {
  ImageFeaturesModel m;
  if (!readString(item, "SessionId", m.sessionId) || !readInteger(item, "FrameId", m.frameId) ||
      !readDouble(item, "Timestamp", m.timestamp) || !readBytes(item, "Features_C", m.featuresC) ||
      !m.sessionId || !m.frameId) {
    return std::nullopt;
  }
  return m;
}

}  // namespace omra
