// The simulated camera image: a small BGRA rendering of the room with the frame number written
// into its first pixels, so that a detector stand-in can tell which frame it is looking at.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "omrakit/pixel_buffer.h"
#include "sim/camera_model.h"
#include "sim/room.h"
#include "sim/scan_path.h"

namespace omra::sim {

// Writes the tag (needs an image at least 6 pixels wide).
void writeFrameTag(PixelBuffer& image, int64_t frameIndex);
// The frame number a tagged image carries; nullopt for an untagged or damaged tag.
std::optional<int64_t> readFrameTag(const PixelBuffer& image);

// The room's light, for the rendered view: gain, the ambient share and where the main light
// comes from (radians, room frame).
struct Lighting {
  double gain = 1;
  double ambient = 0.45;
  double azimuth = 0.6;
  double elevation = 0.9;
};

// Side of the square view the image descriptor is computed from.
inline constexpr int kDescriptorImageSize = 40;

// What the camera sees: surfaces textured in their own coordinates (an object looks the same
// wherever it stands), lit by `light`; extras (someone walking by) block the view too.
PixelBuffer renderView(const Room& room, const CameraModel& camera, const CameraPose& pose,
                       const Lighting& light, int width, int height,
                       std::span<const SimObject> extras = {});

// room null: a plain grey image. pose is in the room's frame.
PixelBuffer renderFrameImage(const Room* room, const CameraModel& camera, const CameraPose& pose,
                             int64_t frameIndex);

}  // namespace omra::sim
