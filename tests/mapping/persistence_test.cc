#include "src/mapping/persistence.h"

#include <gtest/gtest.h>

#include "omrakit/detected_object.h"
#include "omrakit/settings.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/compression.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/scene/activation.h"
#include "tests/mapping/mapping_testutil.h"

namespace omra {
namespace {

// A harness with an opened session and its Persistence.
struct Recorder {
  explicit Recorder(SessionMode mode, ArPlatformVersion version = {}, bool open = true) : h(mode) {
    if (open) {
      h.open(mode == SessionMode::mapping
                 ? Json::parse(R"({"uuid":"MAP-1"})")
                 : Json::parse(R"({"session_uuid":"LOC-1","map_uuid":"MAP-1"})"));
    }
    persistence = Persistence::create(h.state, [this](int64_t count) { progress.push_back(count); },
                                      {h.store, h.logger, h.dispatcher.get(), version});
  }
  ~Recorder() { persistence.reset(); }

  // The records of one table for the current session, read back.
  template <typename Model>
  std::vector<Model> models() const {
    std::vector<Model> models;
    for (const Item& item : h.records(Model::kTableName)) models.push_back(*Model::fromItem(item));
    return models;
  }
  std::vector<DetectedPlaneModel> planes() const { return models<DetectedPlaneModel>(); }

  MappingHarness h;
  std::shared_ptr<Persistence> persistence;
  std::vector<int64_t> progress;
};

ArPlaneAnchor plane(const std::string& id, PlaneAlignment alignment,
                    std::optional<std::vector<Float3>> vertices = std::nullopt) {
  ArPlaneAnchor a;
  a.identifier = id;
  a.alignment = alignment;
  a.center = {1, 2, 3};
  a.boundaryVertices = std::move(vertices);
  return a;
}

DetectedObject object(const std::string& name, float confidence, Float3 at, int64_t id = 1) {
  return DetectedObject(name, confidence, at, 0.5f, 0.5f, 0.5f, 0, id);
}

TEST(PersistenceTexts, VertexAndTransformStrings) {
  EXPECT_EQ(Persistence::vertexString({}), "-");
  EXPECT_EQ(Persistence::vertexString({{0.001f, -1.5e-05f, 1}, {2, 0, -0.25f}}),
            "0.001,-1.5e-05,1.0|2.0,0.0,-0.25");
  EXPECT_EQ(Persistence::transformString(Matrix4x4::identity()),
            "1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0");
  Matrix4x4 m;
  m.columns[3] = {4, 5, 6, 1};  // translation comes last in column order
  m.columns[0].y = 7;           // row 1 of column 0 is the second number
  EXPECT_EQ(Persistence::transformString(m),
            "1.0,7.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,0.0,4.0,5.0,6.0,1.0");
}

TEST(PersistencePlanes, CountingByAlignmentAndPlatform) {
  struct Case {
    ArPlatformVersion version;
    std::vector<PlaneAlignment> planes;
    size_t increments;
  };
  const auto H = PlaneAlignment::kHorizontal, V = PlaneAlignment::kVertical;
  const Case cases[] = {
      {{11, 3}, {V, V, V}, 2},  // only the first two vertical planes count
      {{11, 2}, {V, V, V}, 0},  // alignment unknown before 11.3
      {{12, 0}, {H, H}, 1},     // only the first horizontal plane counts
      {{11, 0}, {H, H}, 1},    {{13, 0}, {H, V, H, V, V}, 3},
  };
  for (const Case& c : cases) {
    Recorder r(SessionMode::mapping, c.version);
    int n = 0;
    for (PlaneAlignment a : c.planes) {
      r.persistence->advanceFrameCounter();
      r.persistence->planeDetected(plane("P" + std::to_string(n++), a));
    }
    EXPECT_EQ(r.progress.size(), c.increments);
    EXPECT_EQ(r.planes().size(), c.planes.size());
  }
}

TEST(PersistencePlanes, RecordFields) {
  Recorder r(SessionMode::localization, {13, 0});
  r.persistence->advanceFrameCounter();
  r.persistence->advanceFrameCounter();
  r.persistence->planeDetected(
      plane("AB-1", PlaneAlignment::kVertical, std::vector<Float3>{{0.5f, 0, -1}, {1, 0, 2}}));
  r.persistence->advanceFrameCounter();
  r.persistence->planeDetected(plane("AB-2", PlaneAlignment::kHorizontal));  // no vertices
  r.persistence->planeRemoved(plane("AB-1", PlaneAlignment::kVertical));
  std::vector<DetectedPlaneModel> planes = r.planes();
  ASSERT_EQ(planes.size(), 3u);  // two events of frame 3, each kept
  DetectedPlaneModel first("LOC-1", 2, "AB-1", "vertical", "0.5,0.0,-1.0|1.0,0.0,2.0", true,
                           Persistence::transformString(Matrix4x4::identity()), false);
  DetectedPlaneModel second("LOC-1", 3, "AB-2", "horizontal", "-", true,
                            Persistence::transformString(Matrix4x4::identity()), false);
  DetectedPlaneModel removal("LOC-1", 3, "AB-1", "vertical", "-", true, "-", true);
  first.timestamp = planes[0].timestamp;
  second.timestamp = planes[1].timestamp;
  removal.timestamp = planes[2].timestamp;
  EXPECT_EQ(planes, (std::vector<DetectedPlaneModel>{first, second, removal}));
}

TEST(PersistencePlanes, OldPlatformGetsThreeVerticesAroundTheCentre) {
  Recorder r(SessionMode::mapping, {11, 2});
  r.persistence->planeDetected(
      plane("P", PlaneAlignment::kHorizontal, std::vector<Float3>{{9, 9, 9}}));
  ASSERT_EQ(r.planes().size(), 1u);
  EXPECT_EQ(r.planes()[0].vertices, "1.001,2.0,3.0|0.999,2.0,3.0|1.0,2.0,3.001");
}

TEST(PersistencePlanes, NothingRecordedOrCountedBeforeTheSessionOpens) {
  Recorder r(SessionMode::mapping, {13, 0}, /*open=*/false);
  r.persistence->planeDetected(plane("P", PlaneAlignment::kHorizontal));
  r.persistence->planeRemoved(plane("P", PlaneAlignment::kHorizontal));
  r.persistence->objectsFound({object("chair", 0.9f, {0, 0, 0})});
  EXPECT_TRUE(r.progress.empty());
  EXPECT_EQ(r.h.store->itemCount(DetectedPlaneModel::kTableName), 0u);
  EXPECT_EQ(r.h.store->itemCount(SceneUnderstandingModel::kTableName), 0u);
}

TEST(PersistenceObjects, AcceptanceAndCounting) {
  Recorder r(SessionMode::mapping);
  struct Step {
    DetectedObject object;
    bool recorded;
    bool counts;
  };
  const Step steps[] = {
      {object("person", 0.9f, {9, 9, 9}), false, false},    // people never
      {object("chair", 0.49f, {9, 9, 9}), false, false},    // below 0.5
      {object("chair", 0.5f, {0, 0, 0}), true, true},       // first accepted object counts
      {object("chair", 0.9f, {2, 0, 0}), true, false},      // only one label so far
      {object("table", 0.9f, {0, 0.59f, 0}), true, false},  // too close to the first chair
      {object("table", 0.9f, {0, 0, 0.6f}), true, true},    // exactly 0.6 away is distant
      {object("chair", 0.9f, {2, 0, 0}), true, true},       // second kind seen: any kind counts
  };
  size_t recorded = 0, counted = 0;
  for (const Step& s : steps) {
    SCOPED_TRACE(s.object.name());
    r.persistence->advanceFrameCounter();  // records of one frame share a key
    r.persistence->objectsFound({s.object});
    recorded += s.recorded;
    counted += s.counts;
    EXPECT_EQ(r.h.store->itemCount(SceneUnderstandingModel::kTableName), recorded);
    EXPECT_EQ(r.progress.size(), counted);
  }
  EXPECT_EQ(r.persistence->uniqueLabelsSeen(), (std::vector<std::string>{"chair", "table"}));
}

TEST(PersistenceObjects, KeepsTheLastFourDistantPositions) {
  Recorder r(SessionMode::mapping);
  r.persistence->objectsFound({object("a", 0.9f, {0, 0, 0})});
  for (int i = 1; i <= 5; ++i) {
    r.persistence->objectsFound({object("b", 0.9f, {static_cast<float>(i), 0, 0})});
  }
  EXPECT_EQ(r.progress.size(), 6u);
  std::vector<Vector3> kept = r.persistence->disperateObjectsSeen();
  ASSERT_EQ(kept.size(), 4u);
  EXPECT_EQ(kept.front(), Vector3(2, 0, 0));
  EXPECT_EQ(kept.back(), Vector3(5, 0, 0));
}

TEST(PersistenceObjects, RecordFields) {
  Recorder r(SessionMode::localization);
  for (int i = 0; i < 4; ++i) r.persistence->advanceFrameCounter();
  r.persistence->objectsFound({object("cup", 0.75f, {1.5f, -0.25f, 2}, 42)});
  std::vector<SceneUnderstandingModel> objects = r.models<SceneUnderstandingModel>();
  ASSERT_EQ(objects.size(), 1u);
  SceneUnderstandingModel want("LOC-1", 4, 1.5f, -0.25f, 2, "cup", 0.75f, 42, true);
  want.timestamp = objects[0].timestamp;
  EXPECT_EQ(objects[0], want);
}

TEST(PersistenceFrames, ActivationAndCameraPathRecords) {
  Recorder r(SessionMode::mapping);
  r.persistence->advanceFrameCounter();
  r.persistence->uploadImageActivation(Activation({}, Tensor::fromDoubles({1, 1, 2}, {1, 0.5})));
  std::vector<Item> features = r.h.records(ImageFeaturesModel::kTableName);
  ASSERT_EQ(features.size(), 1u);
  std::optional<ImageFeaturesModel> model = ImageFeaturesModel::fromItem(features[0]);
  EXPECT_EQ(model->frameId, 1);
  EXPECT_EQ(decompress(*model->featuresC), "1.000000,0.500000");

  ArFrame frame;
  frame.camera.transform.columns[3] = {1, 2, 3, 1};
  for (int i = 0; i < 21; ++i) {
    r.persistence->advanceFrameCounter();
    r.persistence->uploadARKitInfo(frame);
  }
  // Frames 2..21: frame 20 closed the block of frames 2..19.
  std::vector<Item> paths = r.h.records(CameraPathModel::kTableName);
  ASSERT_EQ(paths.size(), 1u);
  std::optional<CameraPathModel> block = CameraPathModel::fromItem(paths[0]);
  EXPECT_EQ(block->frameId, 0);
  EXPECT_EQ(block->transforms->size(), 18u);
  EXPECT_EQ(block->transforms->at("2"),
            "1.0,0.0,0.0,1.0,0.0,1.0,0.0,2.0,0.0,0.0,1.0,3.0,0.0,0.0,0.0,1.0,");
  r.persistence->flush();
  EXPECT_EQ(r.h.records(CameraPathModel::kTableName).size(), 2u);
  EXPECT_TRUE(r.h.logger->contains("Flushing all data.."));
}

TEST(PersistenceFrames, DestructionFlushesTheQueues) {
  Recorder r(SessionMode::mapping);
  r.persistence->advanceFrameCounter();
  r.persistence->uploadARKitInfo(ArFrame{});
  EXPECT_EQ(r.h.records(CameraPathModel::kTableName).size(), 0u);
  r.persistence.reset();
  EXPECT_EQ(r.h.records(CameraPathModel::kTableName).size(), 1u);
}

}  // namespace
}  // namespace omra
