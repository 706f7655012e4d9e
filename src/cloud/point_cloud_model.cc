#include "src/cloud/point_cloud_model.h"

#include <charconv>

#include "src/cloud/compression.h"
#include "src/cloud/record_item.h"
#include "src/foundation/math.h"

namespace omra {
namespace {

template <class Int>
void appendInteger(std::string& out, Int value) {
  char buf[24];
  const auto res = std::to_chars(buf, buf + sizeof buf, value);
  out.append(buf, res.ptr);
}

}  // namespace

TableSchema PointCloudModel::schema() {
  return {kTableName, "SessionId", KeyType::kString, kRecordIdAttribute, KeyType::kNumber};
}

PointCloudModel::PointCloudModel(std::string sessionId_, int64_t frameId_,
                                 const FramesToFeatureIds& frames, const IdToFeature& features)
    : sessionId(std::move(sessionId_)),
      frameId(frameId_),
      framesToFeatureIdC(compressOrDie(framesText(frames))),
      featuresC(compressOrDie(featuresText(features))) {}

std::string PointCloudModel::framesText(const FramesToFeatureIds& frames) {
  std::string out = "{";
  bool first = true;
  for (const auto& [frame, ids] : frames) {
    if (!first) out += ',';
    first = false;
    appendInteger(out, frame);
    out += ":[";
    for (size_t i = 0; i < ids.size(); ++i) {
      if (i > 0) out += ',';
      appendInteger(out, ids[i]);
    }
    out += ']';
  }
  out += '}';
  return out;
}

std::string PointCloudModel::featuresText(const IdToFeature& features) {
  std::string out;
  out.reserve(features.size() * 40 + 2);
  out += '{';
  bool first = true;
  for (const auto& [id, point] : features) {
    if (!first) out += ',';
    first = false;
    appendInteger(out, id);
    out += ":[";
    appendVectorFloat3(out, point);
    out += ']';
  }
  out += '}';
  return out;
}

Item PointCloudModel::toItem() const {
  Item item;
  putIf(item, "SessionId", sessionId, AttributeValue::string);
  putIf(item, "FrameId", frameId, integerNumber);
  putIf(item, "FramesToFeatureId_C", framesToFeatureIdC, AttributeValue::bytes);
  putIf(item, "Features_C", featuresC, AttributeValue::bytes);
  return item;
}

std::optional<PointCloudModel> PointCloudModel::fromItem(const Item& item) {
  PointCloudModel m;
  const bool ok = readString(item, "SessionId", m.sessionId) &&
                  readInteger(item, "FrameId", m.frameId) &&
                  readBytes(item, "FramesToFeatureId_C", m.framesToFeatureIdC) &&
                  readBytes(item, "Features_C", m.featuresC);
  if (!ok || !m.sessionId || !m.frameId) return std::nullopt;
  return m;
}

}  // namespace omra
