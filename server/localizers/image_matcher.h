// The image matcher: pairs each session frame with the map frame of most similar image features
// and takes the camera poses of the pairs that agree. Stateless apart from its options; estimate()
// may run on any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "server/localizers/pose4.h"
#include "server/localizers/su_localizer.h"

namespace omra::server {

// One frame with its image-feature vector and camera pose (camera to world, row-major).
struct PosedFeatures {
  int64_t frameId = 0;
  Mat4 cameraPose{};
  std::vector<float> features;
};

struct ImageMatcherOptions {
  int topMatches = 20;               // the most similar matches that vote
  double agreeDistance = 0.3;        // metres
  double agreeAngle = 0.0872664626;  // radians (5 degrees)
  int minGroup = 3;
};

class ApproximateSearch;

// Map frames, unit-normalised once into one flat matrix so that many sessions can be matched
// against them cheaply; beyond approximateFrom frames a nearest-neighbour graph answers instead of
// comparing with every frame, so that a run's cost grows with the session, not with the map.
// Immutable after construction; safe to share across threads.
class ImageFeatureIndex {
 public:
  static constexpr size_t kApproximateFrom = 4096;
  explicit ImageFeatureIndex(const std::vector<PosedFeatures>& frames,
                             size_t approximateFrom = kApproximateFrom);
  ~ImageFeatureIndex();
  ImageFeatureIndex(ImageFeatureIndex&&) noexcept;

  size_t size() const { return poses_.size(); }
  // Distinct for every index built in this process: what a NeighbourMemo is tied to.
  uint64_t serial() const { return serial_; }
  size_t dimension() const { return dim_; }
  // Best (index, cosine similarity) for a vector of this index's dimension; index -1 when empty.
  std::pair<int, float> best(const float* unitVector) const;
  // Matches four unit vectors at once (each pointer may repeat); fills four answers.
  void best4(const float* const v[4], std::pair<int, float> out[4]) const;
  const Mat4& pose(int index) const { return poses_[static_cast<size_t>(index)]; }

  // Unit-normalises v into out, padded with zeros to stride(); false for a zero or non-finite
  // vector or a different dimension.
  bool normalise(const std::vector<float>& v, float* out) const;
  size_t stride() const { return stride_; }
  bool approximate() const { return static_cast<bool>(search_); }
  size_t bytes() const;

 private:
  uint64_t serial_ = 0;
  size_t dim_ = 0, stride_ = 0;
  std::unique_ptr<ApproximateSearch> search_;
  std::vector<float> matrix_;  // size() rows of stride_ floats
  std::vector<Mat4> poses_;
};

// The best map row already found for each of one session's frames (keyed by frame and features),
// so that a later run against the same index searches only the frames new since. Answers for
// another index are dropped when the first of the new one arrives. Owned by the session's cache
// entry; thread-safe.
class NeighbourMemo {
 public:
  using Best = std::pair<int, float>;
  static uint64_t keyOf(const PosedFeatures& frame);
  std::optional<Best> find(uint64_t indexSerial, uint64_t key) const;
  void put(uint64_t indexSerial, uint64_t key, Best best);
  size_t size() const;

 private:
  mutable std::mutex mutex_;
  uint64_t serial_ = 0;                      // guarded by mutex_
  std::unordered_map<uint64_t, Best> best_;  // guarded by mutex_
};

class ImageMatcher {
 public:
  explicit ImageMatcher(ImageMatcherOptions options = {}) : options_(options) {}

  LocalizerReport estimate(const ImageFeatureIndex& map,
                           const std::vector<PosedFeatures>& session) const;
  // The best groups of agreeing matches, best first, each as estimate() reports one (found when it
  // holds enough): hypotheses for a check against the scene, not answers.
  // With a memo, frames it knows are not searched again, and new answers go into it.
  std::vector<LocalizerReport> proposals(const ImageFeatureIndex& map,
                                         const std::vector<PosedFeatures>& session, int maxGroups,
                                         NeighbourMemo* memo = nullptr) const;

 private:
  ImageMatcherOptions options_;
};

}  // namespace omra::server
