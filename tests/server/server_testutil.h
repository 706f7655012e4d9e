// Synthetic scenes for the localizer tests and benchmarks: labelled landmarks and posed image
// features in a room, and the same scene seen from a second session frame.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "server/localizers/image_matcher.h"
#include "server/localizers/su_localizer.h"

namespace omra::server::testing {

// n landmarks in a 6 m x 6 m room (y in [0, 2]), labels drawn from the first labelCount names.
std::vector<Landmark> makeRoom(int n, int labelCount, uint64_t seed);

// The landmarks carried by pose, each axis moved by N(0, noise).
std::vector<Landmark> seenFrom(const std::vector<Landmark>& map, const Pose4& pose, double noise,
                               uint64_t seed);

// A camera pose (row-major, camera to world) at position p turned by yaw about y and pitch about
// x.
Mat4 cameraPose(const Vec3& p, double yaw, double pitch);
Mat4 toMat4(const Pose4& pose);

// n map frames with random unit-ish feature vectors of dim elements and random camera poses.
std::vector<PosedFeatures> makeFrames(int n, int dim, uint64_t seed);

// Session frames: map frames re-seen under pose (camera pose = pose * map pose), features with
// N(0, featureNoise) added; every k-th of them (k = 1/wrongShare) gets a random vector instead.
std::vector<PosedFeatures> reseen(const std::vector<PosedFeatures>& map, const Pose4& pose,
                                  double featureNoise, double wrongShare, uint64_t seed);

}  // namespace omra::server::testing
