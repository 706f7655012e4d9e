// The simulated camera image: a small BGRA rendering of the room with the frame number written
// into its first pixels, so that a detector stand-in can tell which frame it is looking at.
#pragma once

#include <cstdint>
#include <optional>

#include "omrakit/pixel_buffer.h"
#include "sim/camera_model.h"
#include "sim/room.h"
#include "sim/scan_path.h"

namespace omra::sim {

// Writes the tag (needs an image at least 6 pixels wide).
void writeFrameTag(PixelBuffer& image, int64_t frameIndex);
// The frame number a tagged image carries; nullopt for an untagged or damaged tag.
std::optional<int64_t> readFrameTag(const PixelBuffer& image);

// room null: a plain grey image. pose is in the room's frame.
PixelBuffer renderFrameImage(const Room* room, const CameraModel& camera, const CameraPose& pose,
                             int64_t frameIndex);

}  // namespace omra::sim
