#include <gtest/gtest.h>

#include <cmath>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/compression.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/point_cloud_model_queue.h"
#include "src/cloud/record_tables.h"
#include "src/platform/memory_logger.h"
#include "src/platform/store/memory_record_store.h"

namespace omra {
namespace {

Matrix4x4 translation(float x, float y, float z) {
  Matrix4x4 m;
  m.columns[3] = {x, y, z, 1};
  return m;
}

class QueueTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(ensureRecordTables(*store_).has_value()); }

  // The records of one table for session "S", read back.
  template <typename Model>
  std::vector<Model> records() {
    std::vector<Model> out;
    for (const Item& i : queryAll(*store_, Model::kTableName, AttributeValue::string("S"))) {
      out.push_back(*Model::fromItem(i));
    }
    return out;
  }
  std::vector<CameraPathModel> cameraRecords() { return records<CameraPathModel>(); }
  std::vector<PointCloudModel> cloudRecords() { return records<PointCloudModel>(); }

  std::optional<std::string> session_ = "S";
  std::shared_ptr<MemoryRecordStore> store_ = std::make_shared<MemoryRecordStore>();
  std::shared_ptr<MemoryLogger> prints_ = std::make_shared<MemoryLogger>();
  RecordWriter writer_{store_, prints_};
  SessionIdSource sessionId_ = [this] { return session_; };
};

TEST(PoseTextTest, RowByRowShortestWithTrailingComma) {
  EXPECT_EQ(CameraPathModelQueue::poseText(Matrix4x4::identity()),
            "1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,");
  // The translation comes 4th, 8th and 12th.
  EXPECT_EQ(CameraPathModelQueue::poseText(translation(0.5f, -0.25f, 1e-05f)),
            "1.0,0.0,0.0,0.5,0.0,1.0,0.0,-0.25,0.0,0.0,1.0,1e-05,0.0,0.0,0.0,1.0,");
  Matrix4x4 m = Matrix4x4::identity();
  m.columns[0].y = std::nanf("");  // row 1, column 0
  m.columns[2].x = INFINITY;       // row 0, column 2
  m.columns[1].w = -INFINITY;      // row 3, column 1
  m.columns[0].z = 0.1f;           // row 2, column 0
  EXPECT_EQ(CameraPathModelQueue::poseText(m),
            "1.0,0.0,inf,0.0,nan,1.0,0.0,0.0,0.1,0.0,1.0,0.0,0.0,-inf,0.0,1.0,");
}

TEST_F(QueueTest, CameraBlocksOfTwentyFrameNumbers) {
  CameraPathModelQueue q(sessionId_, writer_);
  for (int64_t f = 0; f < 20; ++f) q.add(translation(static_cast<float>(f), 0, 0), f);
  EXPECT_TRUE(cameraRecords().empty());
  EXPECT_EQ(q.queuedCameraPaths().size(), 20u);
  q.add(Matrix4x4::identity(), 20);
  auto records = cameraRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].frameId, 0);
  ASSERT_EQ(records[0].transforms->size(), 20u);
  EXPECT_EQ(records[0].transforms->at("19"),
            "1.0,0.0,0.0,19.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,");
  EXPECT_EQ(q.queuedCameraPathStart(), 20);
  EXPECT_EQ(q.queuedCameraPaths().size(), 1u);
  EXPECT_TRUE(prints_->prints().empty());
}

TEST_F(QueueTest, CameraGapsStepsBackAndRepeats) {
  CameraPathModelQueue q(sessionId_, writer_);
  q.add(Matrix4x4::identity(), 5);
  q.add(Matrix4x4::identity(), 6);
  q.add(Matrix4x4::identity(), 47);  // writes 5 and 6 under block 0, opens block 40
  auto records = cameraRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].frameId, 0);
  EXPECT_EQ(records[0].transforms->size(), 2u);
  EXPECT_TRUE(records[0].transforms->count("5") && records[0].transforms->count("6"));
  EXPECT_EQ(q.queuedCameraPathStart(), 40);

  q.add(Matrix4x4::identity(), 3);  // backwards: nothing written, the start moves back
  EXPECT_EQ(cameraRecords().size(), 1u);
  EXPECT_EQ(q.queuedCameraPathStart(), 0);
  EXPECT_EQ(q.queuedCameraPaths().size(), 2u);  // 47 and 3 together

  q.add(translation(1, 2, 3), 3);  // a repeated number replaces its pose
  EXPECT_EQ(q.queuedCameraPaths().size(), 2u);
  EXPECT_EQ(q.queuedCameraPaths().at("3"), CameraPathModelQueue::poseText(translation(1, 2, 3)));

  q.save();  // written now under the current start, and still queued
  records = cameraRecords();
  ASSERT_EQ(records.size(), 2u);  // a record of its own: readers take the newest for a frame
  EXPECT_EQ(records[1].frameId, 0);
  EXPECT_EQ(records[1].transforms->size(), 2u);
  EXPECT_TRUE(records[1].transforms->count("47"));
  EXPECT_EQ(q.queuedCameraPaths().size(), 2u);
}

TEST_F(QueueTest, MissingSessionIsPrintedAndNothingStored) {
  session_.reset();
  CameraPathModelQueue q(sessionId_, writer_);
  q.add(Matrix4x4::identity(), 1);
  q.save();
  EXPECT_EQ(store_->itemCount(CameraPathModel::kTableName), 0u);
  ASSERT_EQ(prints_->prints().size(), 1u);
  EXPECT_EQ(prints_->prints().at(0).rfind("Amazon DynamoDB Save Error: ", 0), 0u);
}

TEST_F(QueueTest, PointCloudBlocksOfOneEightyFrameNumbers) {
  PointCloudModelQueue q(sessionId_, writer_);
  q.add({{{1, 1, 1}, {2, 2, 2}}, {12, 99}}, 178);
  q.add({{{0.5f, -1.25f, 2}}, {99}}, 179);  // 99 moves: the latest position wins
  EXPECT_TRUE(cloudRecords().empty());
  q.add({{{3, 3, 3}}, {7}}, 180);
  auto records = cloudRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].frameId, 0);
  EXPECT_EQ(decompress(*records[0].framesToFeatureIdC), "{178:[12,99],179:[99]}");
  const std::string features = *decompress(*records[0].featuresC);
  EXPECT_TRUE(features == "{12:[1.0,1.0,1.0],99:[0.5,-1.25,2.0]}" ||
              features == "{99:[0.5,-1.25,2.0],12:[1.0,1.0,1.0]}")
      << features;
  EXPECT_EQ(q.queuedFrameStart(), 180);
  EXPECT_EQ(q.framesToFeatureIds().size(), 1u);
  ASSERT_EQ(q.idToFeature().size(), 1u);  // both dictionaries were emptied

  q.add({{{4, 4, 4}}, {7}}, 180);  // repeated frame number replaces its identifiers
  q.add({{{5, 5, 5}}, {8}}, 10);   // step back: no write, start moves to 0
  EXPECT_EQ(cloudRecords().size(), 1u);
  EXPECT_EQ(q.queuedFrameStart(), 0);
  q.save();
  records = cloudRecords();
  ASSERT_EQ(records.size(), 2u);  // kept beside the first block's record
  EXPECT_EQ(records[1].frameId, 0);
  EXPECT_EQ(decompress(*records[1].framesToFeatureIdC), "{10:[8],180:[7]}");
  EXPECT_TRUE(prints_->prints().empty());
}

TEST_F(QueueTest, PointCloudWithFewerPointsThanIdentifiersIsFatal) {
  PointCloudModelQueue q(sessionId_, writer_);
  EXPECT_DEATH(q.add({{{1, 1, 1}}, {1, 2}}, 0), "fewer points");
}

}  // namespace
}  // namespace omra
