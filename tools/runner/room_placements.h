// Where a replay places assets: the demo's three spots on the room's objects, carried into a
// recording's session frame by its truth. Pure; thread-safe.
#pragma once

#include <vector>

#include "omrakit/map_asset.h"
#include "sim/recording.h"

namespace omra::tools {

// Empty when the recording has no truth (a real device's recording).
std::vector<MapAsset> placementsOnRoomObjects(const sim::Recording& recording);

}  // namespace omra::tools
