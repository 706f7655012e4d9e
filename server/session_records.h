// Reads what the kit recorded under one session identifier into the localizers' inputs. Records
// that do not parse are skipped (counted), never fatal. Free functions; thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "server/localizers/image_matcher.h"
#include "server/localizers/su_localizer.h"

namespace omra::server {

struct ReadStats {
  size_t records = 0;
  size_t skipped = 0;  // records, or parts of them (a frame's pose, a point), left out
};

std::vector<ObjectObservation> readObservations(RecordStore& store, const std::string& sessionId,
                                                std::optional<StoreError>* error,
                                                ReadStats* stats = nullptr);

// Frames with an image-feature vector and a camera pose: the camera-path frame nearest to the
// feature frame, when it lies within maxFrameGap frames.
std::vector<PosedFeatures> readPosedFeatures(RecordStore& store, const std::string& sessionId,
                                             std::optional<StoreError>* error,
                                             ReadStats* stats = nullptr, int maxFrameGap = 5);

// The heavy map's feature points ("MapData-PointCloud"), each the latest position of its
// identifier. Points that are not finite are skipped and counted.
std::vector<Vec3> readPoints(RecordStore& store, const std::string& sessionId,
                             std::optional<StoreError>* error, ReadStats* stats = nullptr);

// The readers above in steps, for a reader that takes records as they arrive. Each step takes one
// record and counts it (and what of it was skipped) in stats.
std::optional<ObjectObservation> addObservation(const Item& item, ReadStats& stats);
// Point-cloud record: its points into latest (identifier -> newest position).
void addPoints(const Item& item, std::map<uint64_t, Vec3>& latest, ReadStats& stats);
// Camera-path record: its poses into poses (frame -> pose).
void addPoses(const Item& item, std::map<int64_t, Mat4>& poses, ReadStats& stats);
// Image-features record: its frame and vector, none when it has no usable vector.
struct FrameFeatures {
  int64_t frameId = 0;
  std::vector<float> features;
};
std::optional<FrameFeatures> addFeatures(const Item& item, ReadStats& stats);
// Pairs each feature frame (in the order read) with its nearest pose as readPosedFeatures does,
// in frame order; frames whose pose is missing inside the recorded path are counted in skipped.
std::vector<PosedFeatures> pairWithPoses(const std::vector<FrameFeatures>& frames,
                                         const std::map<int64_t, Mat4>& poses, size_t* skipped,
                                         int maxFrameGap = 5);

// "{99:[0.5,-1.25,2],100:[1,2,3]}" -> (identifier, point) pairs; absent when the text does not
// have that shape. A point with a component that is not finite keeps its place with NaN, for the
// caller to count.
std::optional<std::vector<std::pair<uint64_t, Vec3>>> parsePointText(std::string_view text);

// "1.000000,0.500000" -> {1, 0.5}; absent when any element is not a number.
std::optional<std::vector<float>> parseFeatureText(std::string_view text);
// The camera path's pose text: sixteen numbers row by row, each followed by ",".
std::optional<Mat4> parsePoseText(std::string_view text);

}  // namespace omra::server
