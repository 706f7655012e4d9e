// Everything the localizers need of one map, read and built once: its objects, planes, feature
// points (in a grid) and image features (in a nearest-neighbour index). Built by MapIndexCache;
// immutable afterwards, so one index serves any number of runs at once.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "omrakit/platform/record_store.h"
#include "server/localizers/image_matcher.h"
#include "server/localizers/joint_refiner.h"
#include "server/localizers/point_grid.h"

namespace omra::server {

// How many records of a session were read, and how many of them (or of their parts) were left out
// because they contradict themselves: a frame with no pose, a point or object that is not a
// number, a plane with no normal.
struct SceneReadStats {
  size_t records = 0;
  size_t skippedObjects = 0, skippedFrames = 0, skippedPlanes = 0, skippedPoints = 0;
  size_t skipped() const { return skippedObjects + skippedFrames + skippedPlanes + skippedPoints; }
  // "; skipped 3 contradicting records (2 frames without pose, 1 plane)" or "".
  std::string text() const;
};

// One session's evidence read from the store. With images false the image features are not read.
struct SessionScene {
  SceneEvidence evidence;
  std::vector<PosedFeatures> frames;
  SceneReadStats stats;
};
SessionScene readSessionScene(RecordStore& store, const std::string& sessionId, bool images,
                              std::optional<StoreError>* error);

class MapIndex {
 public:
  explicit MapIndex(SessionScene scene);

  const SceneEvidence& evidence() const { return scene_.evidence; }
  const SceneReadStats& stats() const { return scene_.stats; }
  const ImageFeatureIndex& images() const { return images_; }
  const PointGrid& points() const { return points_; }
  size_t bytes() const;

 private:
  SessionScene scene_;
  ImageFeatureIndex images_;
  PointGrid points_;
};

}  // namespace omra::server
