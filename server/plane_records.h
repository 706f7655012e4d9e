// Reads the planes a session detected ("MapData-DetectedPlanes") into the plane refiner's input:
// the newest record of each plane, removed planes left out. Records that do not parse are skipped,
// never fatal. Free function; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "server/localizers/plane_refiner.h"

namespace omra::server {

// skipped: records left out because they contradict themselves (no usable transform or normal).
std::vector<PlaneObservation> readPlanes(RecordStore& store, const std::string& sessionId,
                                         std::optional<StoreError>* error,
                                         size_t* skipped = nullptr);

// A plane anchor's transform text (sixteen numbers, column by column) as origin and unit normal
// (the anchor's y axis); none when it does not parse.
std::optional<PlaneObservation> parsePlaneTransform(const std::string& text);

}  // namespace omra::server
