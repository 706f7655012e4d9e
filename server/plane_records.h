// Reads the planes a session detected ("MapData-DetectedPlanes") into the plane refiner's input:
// the newest record of each plane, removed planes left out. Records that do not parse are skipped,
// never fatal. Free function; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "server/localizers/plane_refiner.h"
#include "src/cloud/detected_plane_model.h"

namespace omra::server {

// skipped: records left out because they contradict themselves (no usable transform or normal).
std::vector<PlaneObservation> readPlanes(RecordStore& store, const std::string& sessionId,
                                         std::optional<StoreError>* error,
                                         size_t* skipped = nullptr);

// The same in two steps, for a reader that takes records as they arrive: one record as a plane
// event (none when it names no plane), and events in the order they were read folded into planes.
std::optional<DetectedPlaneModel> planeEventOf(const Item& item);
std::vector<PlaneObservation> foldPlaneEvents(std::vector<DetectedPlaneModel> events,
                                              size_t* skipped = nullptr);

// A plane anchor's transform text (sixteen numbers, column by column) as origin, unit normal
// (the anchor's y axis) and unit x axis; none when it does not parse.
std::optional<PlaneObservation> parsePlaneTransform(const std::string& text);

// The outline of a plane from its boundary vertices ("x,y,z|x,y,z|...", in the anchor's own
// frame) and the anchor's transform text; none when either does not parse or the vertices span
// no area.
std::optional<PlaneOutline> parsePlaneOutline(const std::string& vertices,
                                              const std::string& transform);

}  // namespace omra::server
