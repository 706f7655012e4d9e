// Where content goes in a simulated scene: the demo's three spots on the room's objects, and where
// a host standing in a mapping session would put each of them. Pure functions; thread-safe.
//
// A host places an asset while its camera is in the asset's room looking at the spot, in the
// tracking frame of that moment. With tracking drift that frame is not the mapping session's
// drift-free one: the asset's map coordinates carry the drift the tracking had when the host
// placed it, exactly as the points and planes the map holds of that spot carry the drift they had
// when they were first seen. The frame taken is the one nearest the spot that has it in view
// (inside the image's central part, not hidden by other objects).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/map_asset.h"
#include "sim/recording.h"

namespace omra::tools {

// A spot on a room object (its top face's centre, heading along the object), room frame.
struct AssetSpot {
  std::string id;
  sim::Vec3 position;
  double yaw = 0;
  int objectId = 0;  // the object it stands on
};

// Three spots: the table first, then objects spread as far apart as possible.
std::vector<AssetSpot> assetSpots(const sim::Room& room);

// The frame of `recording` a host places `spot` from: the camera in the spot's room (the truth's
// room; for a walk through several rooms, the one the truth describes), the spot in view and
// nearest the camera. nullopt when no frame shows it.
std::optional<int64_t> placementFrame(const sim::Recording& recording, const AssetSpot& spot);

// `spot` as the host hands it to the kit: at placementFrame's tracked coordinates; the drift-free
// session frame when tracking does not drift; when no frame shows the spot, the frame of the
// camera's nearest pass inside the room (else the last frame).
MapAsset hostPlacement(const sim::Recording& recording, const AssetSpot& spot);

// The spots of the recording's room where its tracking had them at `frame`: where a host draws
// assets handed over then. Empty without truth.
std::vector<MapAsset> placementsAt(const sim::Recording& recording, int64_t frame);

// The spots of the recording's room placed by hostPlacement; empty when the recording has no
// truth (a real device's recording).
std::vector<MapAsset> placementsOnRoomObjects(const sim::Recording& recording);

}  // namespace omra::tools
