// Where the scenes' host puts its assets: in a drifting map, at the tracked coordinates of a
// mapping frame that looks at the spot from inside its room, so that each asset sits on the
// map's own picture of its object; without drift, exactly the session's drift-free frame.
#include "tools/runner/room_placements.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "sim/camera_model.h"
#include "sim/scenario.h"

namespace omra::tools {
namespace {

sim::Vec3 positionOf(const MapAsset& a) { return {a.position.x, a.position.y, a.position.z}; }

// The room-frame position of each feature point of the scene's room, by point id (a space's
// points are stored per room after each other, their ids counting on).
std::unordered_map<uint64_t, sim::Vec3> roomPoints(const sim::Scenario& s) {
  std::unordered_map<uint64_t, sim::Vec3> out;
  if (!s.space) {
    for (const sim::FeaturePoint& p : s.room->points) out[p.id] = p.position;
    return out;
  }
  size_t cell = 0;
  for (size_t k = 0; k < s.space->cells.size(); ++k) {
    if (s.space->cells[k].width == s.room->width &&
        s.space->cells[k].objects.size() == s.room->objects.size())
      cell = k;
  }
  const sim::Vec3 shift{s.space->cellCenterX[cell], 0, 0};
  for (size_t i = 0; i < s.space->merged.points.size(); ++i) {
    if (s.space->cellOfPoint[i] != static_cast<int>(cell)) continue;
    out[s.space->merged.points[i].id] = s.space->merged.points[i].position - shift;
  }
  return out;
}

TEST(RoomPlacements, WithoutDriftTheSessionFrameExactly) {
  sim::ScenarioOptions o;
  o.seed = 12;
  o.mappingSeconds = 4;
  o.localizationSeconds = 2;
  const sim::Scenario s = sim::makeScenario(o);
  const sim::YawTransform& mapFromRoom = s.mapping->truth->sessionFromRoom;
  const std::vector<MapAsset> placed = placementsOnRoomObjects(*s.mapping);
  const std::vector<AssetSpot> spots = assetSpots(*s.room);
  ASSERT_EQ(placed.size(), spots.size());
  ASSERT_EQ(spots.size(), 3u);
  for (size_t i = 0; i < spots.size(); ++i) {
    const sim::Vec3 p = mapFromRoom.apply(spots[i].position);
    EXPECT_EQ(placed[i].assetID, spots[i].id);
    EXPECT_EQ(placed[i].position.x, static_cast<float>(p.x));
    EXPECT_EQ(placed[i].position.y, static_cast<float>(p.y));
    EXPECT_EQ(placed[i].position.z, static_cast<float>(p.z));
    EXPECT_EQ(placed[i].orientation, static_cast<float>(spots[i].yaw + mapFromRoom.theta));
  }
  EXPECT_TRUE(placementsOnRoomObjects(sim::Recording{}).empty());  // no truth, no spots
}

// Drifting maps of one room and of a walk through several: each spot is placed from a frame whose
// camera stands in the spot's room and has it in view, and lands where the map's own points
// around the spot put that part of the room, up to the drift while the room was walked (the
// drift-free frame of a long walk is metres off).
TEST(RoomPlacements, DriftingMapsPlaceOnTheMapsOwnGeometry) {
  struct Case {
    const char* name;
    int rooms;
    double mappingSeconds;
  };
  for (const Case c : {Case{"one room", 1, 16}, Case{"four rooms", 4, 0}}) {
    SCOPED_TRACE(c.name);
    sim::ScenarioOptions o;
    o.seed = 50'040;
    o.mappingSeconds = c.mappingSeconds;
    o.localizationSeconds = 2;
    o.rooms = c.rooms;
    sim::applyCondition(o, "drift");
    const sim::Scenario s = sim::makeScenario(o);
    const sim::Recording& mapping = *s.mapping;
    const sim::RecordingTruth& truth = *mapping.truth;
    ASSERT_FALSE(truth.trackedFromRoom.empty());
    const auto points = roomPoints(s);
    sim::CameraModel camera;
    double driftFreeWorst = 0;
    for (const AssetSpot& spot : assetSpots(*s.room)) {
      SCOPED_TRACE(spot.id);
      const std::optional<int64_t> frame = placementFrame(mapping, spot);
      ASSERT_TRUE(frame.has_value());
      const sim::RecordedFrame* f = mapping.frame(*frame);
      ASSERT_NE(f, nullptr);
      // The camera, undrifted into the room: inside it, the spot in its picture.
      const sim::YawTransform& at = truth.sessionFromRoomAt(*frame);
      const sim::Vec3 eye = at.inverse().apply(sim::Vec3::from(f->worldFromCamera.translation()));
      EXPECT_LT(std::fabs(eye.x), s.room->width / 2);
      EXPECT_LT(std::fabs(eye.z), s.room->depth / 2);
      const sim::Mat3 roomFromCamera =
          sim::Mat3::rotY(-at.theta) * sim::rotationOf(f->worldFromCamera);
      const auto image = camera.project(roomFromCamera.transposed() * (spot.position - eye));
      ASSERT_TRUE(image.has_value());
      EXPECT_GT(image->first, 0);
      EXPECT_LT(image->first, 1);
      EXPECT_GT(image->second, 0);
      EXPECT_LT(image->second, 1);

      // Where the map's points within half a metre of the spot put it.
      sim::Vec3 offset;
      int near = 0;
      for (const auto& [id, recorded] : mapping.points) {
        auto it = points.find(id % 100'000);
        if (it == points.end() || (it->second - spot.position).norm() > 0.5) continue;
        offset = offset + (sim::Vec3::from(recorded) - truth.sessionFromRoom.apply(it->second));
        ++near;
      }
      ASSERT_GT(near, 10);
      const sim::Vec3 mapsOwn = truth.sessionFromRoom.apply(spot.position) + offset * (1.0 / near);
      const MapAsset placed = hostPlacement(mapping, spot);
      EXPECT_LT((positionOf(placed) - mapsOwn).norm(), 0.2);
      EXPECT_NEAR(placed.orientation, spot.yaw + at.theta, 1e-5);
      // Drawn where the tracking had the spot at that frame.
      const std::vector<MapAsset> drawn = placementsAt(mapping, *frame);
      const auto same = std::find_if(drawn.begin(), drawn.end(),
                                     [&](const MapAsset& a) { return a.assetID == spot.id; });
      ASSERT_NE(same, drawn.end());
      EXPECT_EQ(*same, placed);
      driftFreeWorst =
          std::max(driftFreeWorst, (truth.sessionFromRoom.apply(spot.position) - mapsOwn).norm());
    }
    // The scene drifts enough for the frame to matter at all.
    EXPECT_GT(driftFreeWorst, c.rooms > 1 ? 0.3 : 0.02);
  }
}

}  // namespace
}  // namespace omra::tools
