#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <random>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/compression.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/record_writer.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/memory_logger.h"
#include "src/platform/store/memory_record_store.h"

namespace omra {
namespace {

// "Name:T" per attribute in name order; T is S (string), N (number), B (bytes) or M (string map).
std::string typesOf(const Item& item) {
  std::map<std::string, AttributeValue::Type> sorted;
  for (const auto& [name, value] : item) sorted[name] = value.type;
  std::string text;
  for (const auto& [name, type] : sorted) text += " " + name + ":" + "SNBM"[static_cast<int>(type)];
  return text.substr(1);
}

TEST(RecordModelsTest, TablesAndKeys) {
  std::string text;
  for (const auto& s : recordTableSchemas()) {
    EXPECT_EQ(s.hashType, KeyType::kString) << s.name;
    EXPECT_EQ(s.rangeType, KeyType::kNumber) << s.name;
    text += s.name + "(" + s.hashKey + "," + s.rangeKey.value_or("none") + ") ";
  }
  EXPECT_EQ(
      text,
      "MapData-ImageFeatures(SessionId,RecordId) MapData-SceneUnderstanding(SessionId,RecordId) "
      "MapData-DetectedPlanes(SessionId,RecordId) MapData-CameraPath(SessionId,RecordId) "
      "MapData-PointCloud(SessionId,RecordId) Transformations(SessionId,Timestamp) ");
}

// Features go out as printf("%f") texts joined by commas, compressed.
TEST(RecordModelsTest, ImageFeaturesAreCompressedPercentFText) {
  std::mt19937_64 rng(7);
  std::vector<double> values = {1,      0.5,    -0.0000004, 0.0000015, 123456789.125, -2,
                                2.5e-6, -1e300, 1e-320,     0.1,       1234.5678905,  INFINITY};
  for (int i = 0; i < 2000; ++i) {
    uint64_t bits = rng();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    if (std::isfinite(d) && std::fabs(d) < 1e12) values.push_back(d);
    values.push_back(std::ldexp(static_cast<double>(rng() % 100000000), -(int)(rng() % 40)));
  }
  std::string want;
  char buf[400];
  for (size_t i = 0; i < values.size(); ++i) {
    std::snprintf(buf, sizeof buf, "%f", values[i]);
    want += (i > 0 ? "," : "") + std::string(buf);
  }
  EXPECT_EQ(ImageFeaturesModel::featureText(values), want);
  EXPECT_EQ(want.substr(0, 63), "1.000000,0.500000,-0.000000,0.000002,123456789.125000,-2.000000");
  for (const auto& features : {values, std::vector<double>{}}) {
    const ImageFeaturesModel m("S", 3, features);
    ASSERT_TRUE(m.featuresC.has_value());
    EXPECT_FALSE(m.featuresC->empty());  // compressed zero bytes is still a stream
    EXPECT_EQ(decompress(*m.featuresC).value_or("<bad>"),
              ImageFeaturesModel::featureText(features));
  }
}

TEST(RecordModelsTest, ItemsCarryExactlyTheNamedTypedAttributes) {
  const double before = wallClockSeconds();
  const SceneUnderstandingModel object("S", 12, 0.1f, -2.5f, 3.0f, "chair", 0.875f, 7, true);
  const Item o = object.toItem();
  EXPECT_EQ(typesOf(o),
            "Confidence:N FrameId:N IsLocalizationSession:N ObjectId:N ObjectName:S PositionX:N "
            "PositionY:N PositionZ:N SessionId:S Timestamp:N");
  EXPECT_EQ(o.at("FrameId").text, "12");
  EXPECT_EQ(o.at("PositionX").text, "0.1");  // the float's shortest text, not 0.100000001
  EXPECT_EQ(o.at("PositionY").text, "-2.5");
  EXPECT_EQ(o.at("Confidence").text, "0.875");
  EXPECT_EQ(o.at("IsLocalizationSession").text, "1");
  const double stamp = std::stod(o.at("Timestamp").text);
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, wallClockSeconds());
  EXPECT_NE(stamp, std::floor(stamp));  // the fraction is kept

  const DetectedPlaneModel plane("S", 4, "P-1", std::string("vertical"), std::string("0.1,0.0,0.2"),
                                 false, std::string("1.0,0.0"), false);
  const Item p = plane.toItem();
  EXPECT_EQ(p.at("Alignment").text, "vertical");
  EXPECT_EQ(p.at("Vertices").text, "0.1,0.0,0.2");
  EXPECT_EQ(p.at("TransformMatrix").text, "1.0,0.0");
  EXPECT_EQ(p.at("IsLocalizationSession").text, "0");
  EXPECT_EQ(p.at("IsRemoved").text, "0");

  const Item removal = DetectedPlaneModel("S", 5, "P-1", true, true).toItem();
  EXPECT_EQ(typesOf(removal),
            "FrameId:N IsLocalizationSession:N IsRemoved:N PlaneId:S SessionId:S Timestamp:N");
  EXPECT_EQ(removal.at("IsRemoved").text, "1");

  const Item path = CameraPathModel("S", 40, {{"40", "1.0,"}}).toItem();
  EXPECT_EQ(path.at("Transforms"), AttributeValue::stringMap({{"40", "1.0,"}}));
  const Item cloud = PointCloudModel("S", 180, {}, {}).toItem();
  EXPECT_EQ(typesOf(cloud), "Features_C:B FrameId:N FramesToFeatureId_C:B SessionId:S");
  EXPECT_TRUE(TransformResultModel().toItem().empty());
}

TEST(RecordModelsTest, PointCloudTexts) {
  EXPECT_EQ(PointCloudModel::framesText({{40, {12, 99}}, {41, {99}}}), "{40:[12,99],41:[99]}");
  EXPECT_EQ(PointCloudModel::framesText({{7, {}}}), "{7:[]}");
  EXPECT_EQ(PointCloudModel::framesText({}), "{}");
  EXPECT_EQ(PointCloudModel::featuresText({{99, {0.5f, -1.25f, 2.0f}}}), "{99:[0.5,-1.25,2.0]}");
  EXPECT_EQ(PointCloudModel::featuresText({}), "{}");
  EXPECT_EQ(PointCloudModel::featuresText({{18446744073709551615u, {1e-05f, 0, -0.001f}}}),
            "{18446744073709551615:[1e-05,0.0,-0.001]}");
  // Several entries: in the dictionary's order, which readers must not rely on.
  const std::string two = PointCloudModel::featuresText({{1, {1, 1, 1}}, {2, {2, 2, 2}}});
  EXPECT_TRUE(two == "{1:[1.0,1.0,1.0],2:[2.0,2.0,2.0]}" ||
              two == "{2:[2.0,2.0,2.0],1:[1.0,1.0,1.0]}")
      << two;
  const PointCloudModel m("S", 0, {{40, {12, 99}}}, {{99, {0.5f, -1.25f, 2.0f}}});
  EXPECT_EQ(decompress(*m.framesToFeatureIdC), "{40:[12,99]}");
  EXPECT_EQ(decompress(*m.featuresC), "{99:[0.5,-1.25,2.0]}");
}

TEST(RecordModelsTest, FromItemReadsBackAndRejectsWrongTypes) {
  const SceneUnderstandingModel object("S", std::numeric_limits<int64_t>::max(), 1e-05f, 0, -0.f,
                                       "cup", 1, -3, false);
  EXPECT_EQ(SceneUnderstandingModel::fromItem(object.toItem()), object);
  const DetectedPlaneModel removal("S", 5, "P", true, true);
  EXPECT_EQ(DetectedPlaneModel::fromItem(removal.toItem()), removal);
  TransformResultModel r;
  r.sessionId = "L";
  r.timestamp = 1763770000.000001;
  r.suppress = true;
  EXPECT_EQ(TransformResultModel::fromItem(r.toItem()), r);

  Item item = CameraPathModel("S", 20, {{"20", "x"}}).toItem();
  // Another writer's integral number text still reads as the frame number.
  item["FrameId"] = AttributeValue::numberText("2.0e1");
  EXPECT_EQ(CameraPathModel::fromItem(item)->frameId, 20);

  struct Bad {
    const char* name;
    std::function<void(Item&)> spoil;
  };
  const std::vector<Bad> bad = {
      {"frame as string", [](Item& i) { i["FrameId"] = AttributeValue::string("20"); }},
      {"fractional frame", [](Item& i) { i["FrameId"] = AttributeValue::numberText("20.5"); }},
      {"no session", [](Item& i) { i.erase("SessionId"); }},
      {"no frame", [](Item& i) { i.erase("FrameId"); }},
      {"transforms as string", [](Item& i) { i["Transforms"] = AttributeValue::string("{}"); }},
      {"timestamp not a number", [](Item& i) { i["Timestamp"] = AttributeValue::numberText("x"); }},
  };
  for (const Bad& b : bad) {
    Item spoiled = CameraPathModel("S", 20, {{"20", "x"}}).toItem();
    b.spoil(spoiled);
    EXPECT_FALSE(CameraPathModel::fromItem(spoiled).has_value()) << b.name;
  }
  Item plane = removal.toItem();
  plane["IsRemoved"] = AttributeValue::bytes("1");
  EXPECT_FALSE(DetectedPlaneModel::fromItem(plane).has_value());
}

TEST(RecordWriterTest, PrintsOnlyFailedSaves) {
  auto store = std::make_shared<MemoryRecordStore>();
  auto log = std::make_shared<MemoryLogger>();
  RecordWriter writer(store, log);
  int failures = 0;
  writer.save(CameraPathModel("S", 0, {}), [&](bool ok) { failures += !ok; });
  ASSERT_EQ(log->prints().size(), 1u);  // no tables yet
  EXPECT_EQ(log->prints().at(0),
            "Amazon DynamoDB Save Error: Cannot do operations on a non-existent "
            "table: MapData-CameraPath");
  ASSERT_FALSE(ensureRecordTables(*store).has_value());
  writer.save(CameraPathModel("S", 0, {}), [&](bool ok) { failures += !ok; });
  EXPECT_EQ(log->prints().size(), 1u);
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(store->itemCount(CameraPathModel::kTableName), 1u);

  RecordWriter none(nullptr, log);
  none.save(CameraPathModel("S", 0, {}));
  EXPECT_EQ(log->prints().size(), 2u);
}

}  // namespace
}  // namespace omra
