#include "tests/platform/store/record_items_testutil.h"

#include <random>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"

namespace omra::testing {

Item imageFeatureItem(const std::string& sessionId, int64_t recordId, size_t bytes) {
  ImageFeaturesModel m;
  m.sessionId = sessionId;
  m.frameId = recordId * 2;
  m.timestamp = 1763770000.123456 + static_cast<double>(recordId) / 60;
  std::mt19937 rng(static_cast<uint32_t>(recordId));
  std::string features(bytes, '\0');
  for (char& c : features) c = static_cast<char>(rng());
  m.featuresC = std::move(features);
  return withRecordId(m.toItem(), recordId);
}

std::vector<SampleItem> sampleRecordItems(const std::string& sessionId, int64_t firstRecordId) {
  int64_t id = firstRecordId;
  std::vector<SampleItem> out;
  out.push_back({ImageFeaturesModel::kTableName, imageFeatureItem(sessionId, id++)});
  out.push_back({SceneUnderstandingModel::kTableName,
                 withRecordId(SceneUnderstandingModel(sessionId, 8, 0.1f, -2.5f, 1e-05f, "chair",
                                                      0.875f, 42, true)
                                  .toItem(),
                              id++)});
  out.push_back({DetectedPlaneModel::kTableName,
                 withRecordId(DetectedPlaneModel(sessionId, 9, "PLANE-1", "horizontal",
                                                 "0.1,0.0,0.2|0.3,0.0,0.4", false,
                                                 "1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,"
                                                 "0.0,0.5,0.0,-1.0,1.0",
                                                 false)
                                  .toItem(),
                              id++)});
  out.push_back({CameraPathModel::kTableName,
                 withRecordId(CameraPathModel(sessionId, 20,
                                              {{"20", "1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0"},
                                               {"21", "2.0,0.0,0.0,0.0,0.0,1.0,0.0,0.5"}})
                                  .toItem(),
                              id++)});
  out.push_back({PointCloudModel::kTableName,
                 withRecordId(PointCloudModel(sessionId, 180, {{180, {12, 99}}, {181, {99}}},
                                              {{12, {0.5f, -1.25f, 2.0f}}, {99, {1, 2, 3}}})
                                  .toItem(),
                              id++)});
  return out;
}

}  // namespace omra::testing
