#include "tools/runner/room_placements.h"

#include "tools/runner/scenario_run.h"

namespace omra::tools {

std::vector<MapAsset> placementsOnRoomObjects(const sim::Recording& recording) {
  std::vector<MapAsset> out;
  if (!recording.truth) return out;
  const sim::YawTransform& sessionFromRoom = recording.truth->sessionFromRoom;
  for (const AssetSpot& spot : assetSpots(recording.truth->room)) {
    const sim::Vec3 p = sessionFromRoom.apply(spot.position);
    out.emplace_back(
        spot.id, Vector3(static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z)),
        static_cast<float>(spot.yaw + sessionFromRoom.theta));
  }
  return out;
}

}  // namespace omra::tools
