// Synthetic scenes for the localizer tests and benchmarks: labelled landmarks and posed image
// features in a room, and the same scene seen from a second session frame.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "server/localizers/image_matcher.h"
#include "server/localizers/joint_refiner.h"
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

// The shell of a width x depth room centred on the origin (four walls facing in, the floor at
// y = 0), and feature points on it and on the landmarks (a small cluster around each), carried by
// pose.
std::vector<PlaneObservation> roomShell(double width, double depth, const Pose4& pose);
std::vector<Vec3> roomPoints(double width, double depth, const std::vector<Landmark>& landmarks,
                             const Pose4& pose, uint64_t seed);

// Evidence as SceneEvidence carried by pose (landmarks, planes and points), positions moved by
// N(0, noise) (planes' outlines carried as they are).
SceneEvidence carried(const SceneEvidence& scene, const Pose4& pose, double noise, uint64_t seed);

// Planes as a platform estimates them: each anchored where it was first seen (slid along itself
// by +-slide metres), off along its normal by N(0, offsetSigma) and, for a wall or an anchor that
// tells its edges, turned about that anchor by N(0, headingSigma) radians: errors a plane keeps
// for its lifetime.
std::vector<PlaneObservation> withPlaneErrors(std::vector<PlaneObservation> planes, double slide,
                                              double offsetSigma, double headingSigma,
                                              uint64_t seed);

// A session as the kit records it: objects (three sightings each), image features with the
// camera path, planes and (when given) feature points, under sessionId, record ids from 1 (with
// lastRecordId: from *lastRecordId + 1, and *lastRecordId left at the last one written, so that a
// session can be written in parts).
struct SceneRecords {
  SceneEvidence evidence;
  std::vector<PosedFeatures> frames;
};
void writeScene(RecordStore& store, const std::string& sessionId, const SceneRecords& scene,
                int64_t* lastRecordId = nullptr);

// The room seed makes: landmarks, shell and points in the room's own frame, and frames.
struct SyntheticRoom {
  double width = 0, depth = 0;
  SceneEvidence evidence;
  std::vector<PosedFeatures> frames;
};
SyntheticRoom makeSyntheticRoom(uint64_t seed, int landmarks = 16, int frames = 60);

}  // namespace omra::server::testing
