// The simulated detector's activation: a small descriptor of what the camera sees where, built in
// the room's frame so that one physical viewpoint gives one descriptor whatever the session's
// origin. Nearby viewpoints give descriptors of high cosine similarity; distant ones low.
#pragma once

#include "omrakit/pixel_buffer.h"
#include "sim/camera_model.h"
#include "sim/recording.h"
#include "sim/scan_path.h"

namespace omra::sim {

inline constexpr int kDescriptorRaysX = 4;
inline constexpr int kDescriptorRaysY = 4;
inline constexpr int kDescriptorFeatures = 24;  // per ray: 4 (3 axes, heading) x 3 freq. x sin, cos

// Shape {1, rays, features}: for a grid of rays through the detector's crop, the point each ray
// hits, encoded per axis (normalized by the room's size) as sines and cosines of a few frequencies,
// and the ray's heading encoded alike.
ActivationData viewDescriptor(const Room& room, const CameraModel& camera, const CameraPose& pose);

// The same shape from a rendered image alone (BGRA): per cell of a 4 x 4 grid, a histogram of
// gradient directions, the colour (chromaticity) and relative brightness of its quarters, and its
// contrast. Brightness is taken relative to the whole image's, so a dimmer room looks alike.
ActivationData imageDescriptor(const PixelBuffer& image);

double cosineSimilarity(const std::vector<float>& a, const std::vector<float>& b);

}  // namespace omra::sim
