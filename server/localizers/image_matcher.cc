#include "server/localizers/image_matcher.h"

// hnswlib's hand-vectorised build (0.6.2) prefetches the link after the last one of a list while
// it walks the graph (`*(datal + j + 1)`), which reads past the end of an upper layer's list when
// that list is full: a heap read out of bounds. The plain build has no prefetches; the distance
// is ours (below), vectorised, so nothing is lost.
#define NO_MANUAL_VECTORIZATION
#include <hnswlib/hnswlib.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <map>

namespace omra::server {
namespace {

// Eight-float SIMD lanes through the compiler's vector extension; loads may be unaligned.
typedef float V8 __attribute__((vector_size(32)));

// Vectors stay inside one function: passing them by value would tie the ABI to the AVX choice.
#define OMRA_LOAD8(dst, p) std::memcpy(&(dst), (p), sizeof(V8))
#define OMRA_SUM8(v) \
  ((((v)[0] + (v)[1]) + ((v)[2] + (v)[3])) + (((v)[4] + (v)[5]) + ((v)[6] + (v)[7])))

// The hot loops, built twice where the compiler can: for x86-64-v3 (AVX2, FMA) and for the
// baseline, the better one picked at load time. ("arch=haswell" would ask for that very CPU model
// and leave every later one on the baseline.)
// Not under the thread sanitizer: its instrumented load-time resolver would run before it starts.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define OMRA_SIMD_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define OMRA_SIMD_CLONES
#endif

OMRA_SIMD_CLONES
void bestOfRows(const float* matrix, size_t rows, size_t stride, const float* const v[4],
                std::pair<int, float> out[4]) {
  for (int q = 0; q < 4; ++q) out[q] = {-1, -2.0f};
  for (size_t r = 0; r < rows; ++r) {
    const float* row = matrix + r * stride;
    V8 a0{}, a1{}, a2{}, a3{};
    for (size_t k = 0; k < stride; k += 8) {
      V8 m, x0, x1, x2, x3;
      OMRA_LOAD8(m, row + k);
      OMRA_LOAD8(x0, v[0] + k);
      OMRA_LOAD8(x1, v[1] + k);
      OMRA_LOAD8(x2, v[2] + k);
      OMRA_LOAD8(x3, v[3] + k);
      a0 += m * x0;
      a1 += m * x1;
      a2 += m * x2;
      a3 += m * x3;
    }
    const float s[4] = {OMRA_SUM8(a0), OMRA_SUM8(a1), OMRA_SUM8(a2), OMRA_SUM8(a3)};
    for (int q = 0; q < 4; ++q) {
      if (s[q] > out[q].second) out[q] = {static_cast<int>(r), s[q]};
    }
  }
}

// The graph's distance: 1 - inner product of two unit rows of `*param` floats (a multiple of 8).
OMRA_SIMD_CLONES
float innerDistance(const void* a, const void* b, const void* param) {
  const auto* x = static_cast<const float*>(a);
  const auto* y = static_cast<const float*>(b);
  const size_t n = *static_cast<const size_t*>(param);
  V8 a0{}, a1{};
  size_t k = 0;
  for (; k + 16 <= n; k += 16) {
    V8 x0, y0, x1, y1;
    OMRA_LOAD8(x0, x + k);
    OMRA_LOAD8(y0, y + k);
    OMRA_LOAD8(x1, x + k + 8);
    OMRA_LOAD8(y1, y + k + 8);
    a0 += x0 * y0;
    a1 += x1 * y1;
  }
  for (; k < n; k += 8) {
    V8 x0, y0;
    OMRA_LOAD8(x0, x + k);
    OMRA_LOAD8(y0, y + k);
    a0 += x0 * y0;
  }
  a0 += a1;
  return 1.0f - OMRA_SUM8(a0);
}

// Rows of `stride` floats compared by innerDistance.
class UnitRowSpace : public hnswlib::SpaceInterface<float> {
 public:
  explicit UnitRowSpace(size_t stride) : stride_(stride) {}
  size_t get_data_size() override { return stride_ * sizeof(float); }
  hnswlib::DISTFUNC<float> get_dist_func() override { return innerDistance; }
  void* get_dist_func_param() override { return &stride_; }

 private:
  size_t stride_;
};

struct Match {
  float similarity;
  int64_t sessionFrame;
  Pose4 pose;
};

}  // namespace

// hnswlib's graph over the unit rows, inner product as similarity.
class ApproximateSearch {
 public:
  ApproximateSearch(const std::vector<float>& matrix, size_t rows, size_t stride)
      : space_(stride), graph_(&space_, rows, 12, 64, 0x5eed) {
    for (size_t r = 0; r < rows; ++r) graph_.addPoint(matrix.data() + r * stride, r);
    graph_.setEf(32);
  }
  std::pair<int, float> best(const float* unit) const {
    auto found = graph_.searchKnn(unit, 1);
    if (found.empty()) return {-1, -2.0f};
    // The space's distance is 1 - inner product.
    return {static_cast<int>(found.top().second), 1.0f - found.top().first};
  }
  size_t bytes(size_t rows) const { return rows * (graph_.size_data_per_element_ + 64); }

 private:
  UnitRowSpace space_;
  hnswlib::HierarchicalNSW<float> graph_;
};

namespace {
std::atomic<uint64_t> nextIndexSerial{1};
}  // namespace

uint64_t NeighbourMemo::keyOf(const PosedFeatures& frame) {
  // 64-bit FNV-1a over the frame identifier and the features' bits, a word at a time.
  uint64_t h = 0xcbf29ce484222325ull;
  auto mix = [&h](uint64_t w) {
    h ^= w;
    h *= 0x100000001b3ull;
  };
  mix(static_cast<uint64_t>(frame.frameId));
  mix(frame.features.size());
  for (float x : frame.features) {
    uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    mix(bits);
  }
  return h;
}

std::optional<NeighbourMemo::Best> NeighbourMemo::find(uint64_t indexSerial, uint64_t key) const {
  std::lock_guard lock(mutex_);
  if (indexSerial != serial_) return std::nullopt;
  auto it = best_.find(key);
  if (it == best_.end()) return std::nullopt;
  return it->second;
}

void NeighbourMemo::put(uint64_t indexSerial, uint64_t key, Best best) {
  std::lock_guard lock(mutex_);
  if (indexSerial != serial_) {
    best_.clear();
    serial_ = indexSerial;
  }
  best_[key] = best;
}

size_t NeighbourMemo::size() const {
  std::lock_guard lock(mutex_);
  return best_.size();
}

ImageFeatureIndex::~ImageFeatureIndex() = default;
ImageFeatureIndex::ImageFeatureIndex(ImageFeatureIndex&&) noexcept = default;

size_t ImageFeatureIndex::bytes() const {
  return matrix_.capacity() * sizeof(float) + poses_.capacity() * sizeof(Mat4) +
         (search_ ? search_->bytes(poses_.size()) : 0);
}

ImageFeatureIndex::ImageFeatureIndex(const std::vector<PosedFeatures>& frames,
                                     size_t approximateFrom)
    : serial_(nextIndexSerial.fetch_add(1)) {
  // The most common dimension wins; frames of another dimension cannot be compared.
  std::map<size_t, int> dims;
  for (const PosedFeatures& f : frames) {
    if (!f.features.empty()) ++dims[f.features.size()];
  }
  int most = 0;
  for (auto [d, count] : dims) {
    if (count > most) {
      most = count;
      dim_ = d;
    }
  }
  stride_ = (dim_ + 7) / 8 * 8;
  matrix_.reserve(frames.size() * stride_);
  std::vector<float> row(stride_);
  for (const PosedFeatures& f : frames) {
    if (!normalise(f.features, row.data())) continue;
    matrix_.insert(matrix_.end(), row.begin(), row.end());
    poses_.push_back(f.cameraPose);
  }
  if (poses_.size() >= approximateFrom && stride_ > 0) {
    search_ = std::make_unique<ApproximateSearch>(matrix_, poses_.size(), stride_);
  }
}

bool ImageFeatureIndex::normalise(const std::vector<float>& v, float* out) const {
  if (dim_ == 0 || v.size() != dim_) return false;
  double norm2 = 0;
  for (float x : v) norm2 += static_cast<double>(x) * x;
  if (!(norm2 > 0) || !std::isfinite(norm2)) return false;
  const auto inv = static_cast<float>(1.0 / std::sqrt(norm2));
  for (size_t k = 0; k < dim_; ++k) out[k] = v[k] * inv;
  for (size_t k = dim_; k < stride_; ++k) out[k] = 0;
  return true;
}

std::pair<int, float> ImageFeatureIndex::best(const float* unitVector) const {
  const float* v[4] = {unitVector, unitVector, unitVector, unitVector};
  std::pair<int, float> out[4];
  best4(v, out);
  return out[0];
}

void ImageFeatureIndex::best4(const float* const v[4], std::pair<int, float> out[4]) const {
  if (search_) {
    for (int q = 0; q < 4; ++q) out[q] = search_->best(v[q]);
    return;
  }
  bestOfRows(matrix_.data(), size(), stride_, v, out);
}

LocalizerReport ImageMatcher::estimate(const ImageFeatureIndex& map,
                                       const std::vector<PosedFeatures>& session) const {
  std::vector<LocalizerReport> groups = proposals(map, session, 1);
  return groups.empty() ? LocalizerReport{} : groups.front();
}

std::vector<LocalizerReport> ImageMatcher::proposals(const ImageFeatureIndex& map,
                                                     const std::vector<PosedFeatures>& session,
                                                     int maxGroups, NeighbourMemo* memo) const {
  std::vector<LocalizerReport> out;
  if (map.size() == 0 || session.empty()) return out;

  // Normalise the session once, then match four frames per pass over the map matrix.
  const size_t stride = map.stride();
  std::vector<float> unit(session.size() * stride);
  std::vector<size_t> usable;
  for (size_t i = 0; i < session.size(); ++i) {
    if (map.normalise(session[i].features, unit.data() + usable.size() * stride)) {
      usable.push_back(i);
    }
  }
  // Frames the memo knows need no search; the others go four at a time.
  std::vector<std::pair<int, float>> found(usable.size(), {-1, -2.0f});
  std::vector<uint64_t> keys(memo ? usable.size() : 0);
  std::vector<size_t> todo;
  todo.reserve(usable.size());
  for (size_t u = 0; u < usable.size(); ++u) {
    if (memo) {
      keys[u] = NeighbourMemo::keyOf(session[usable[u]]);
      if (auto known = memo->find(map.serial(), keys[u])) {
        found[u] = *known;
        continue;
      }
    }
    todo.push_back(u);
  }
  for (size_t b = 0; b < todo.size(); b += 4) {
    const float* v[4];
    for (size_t q = 0; q < 4; ++q)
      v[q] = unit.data() + todo[std::min(b + q, todo.size() - 1)] * stride;
    std::pair<int, float> four[4];
    map.best4(v, four);
    for (size_t q = 0; q < 4 && b + q < todo.size(); ++q) {
      found[todo[b + q]] = four[q];
      if (memo) memo->put(map.serial(), keys[todo[b + q]], four[q]);
    }
  }
  std::vector<Match> matches;
  matches.reserve(usable.size());
  for (size_t u = 0; u < usable.size(); ++u) {
    if (found[u].first < 0) continue;
    const PosedFeatures& f = session[usable[u]];
    const Mat4 t = multiply(f.cameraPose, rigidInverse(map.pose(found[u].first)));
    matches.push_back({found[u].second, f.frameId, reduceToPose4(t)});
  }
  if (matches.empty()) return out;

  const size_t k = std::min(matches.size(), static_cast<size_t>(options_.topMatches));
  std::partial_sort(matches.begin(), matches.begin() + static_cast<std::ptrdiff_t>(k),
                    matches.end(), [](const Match& a, const Match& b) {
                      return a.similarity != b.similarity ? a.similarity > b.similarity
                                                          : a.sessionFrame < b.sessionFrame;
                    });
  auto agree = [&](const Pose4& a, const Pose4& b) {
    return std::hypot(a.tx - b.tx, a.ty - b.ty, a.tz - b.tz) <= options_.agreeDistance &&
           std::abs(wrapAngle(a.theta - b.theta)) <= options_.agreeAngle;
  };
  // Groups one after the other: the largest among the votes not yet taken.
  std::vector<char> taken(k);
  for (int g = 0; g < maxGroups; ++g) {
    size_t winner = k;
    int winnerOthers = -1;
    for (size_t i = 0; i < k; ++i) {
      if (taken[i]) continue;
      int others = 0;
      for (size_t j = 0; j < k; ++j) {
        if (j != i && !taken[j] && agree(matches[i].pose, matches[j].pose)) ++others;
      }
      if (others > winnerOthers) {
        winnerOthers = others;
        winner = i;
      }
    }
    if (winner == k) break;
    // The mean of the winner's group: translations averaged, angles on the circle.
    double tx = 0, ty = 0, tz = 0, sn = 0, cs = 0, sim = 0;
    std::vector<const Pose4*> group;
    const Pose4 centre = matches[winner].pose;
    for (size_t j = 0; j < k; ++j) {
      if (taken[j] || (j != winner && !agree(centre, matches[j].pose))) continue;
      taken[j] = 1;
      const Pose4& p = matches[j].pose;
      group.push_back(&p);
      tx += p.tx;
      ty += p.ty;
      tz += p.tz;
      sn += std::sin(p.theta);
      cs += std::cos(p.theta);
      sim += matches[j].similarity;
    }
    LocalizerReport report;
    const double n = static_cast<double>(group.size());
    report.transform = {tx / n, ty / n, tz / n, std::atan2(sn, cs)};
    double spread = 0;
    for (const Pose4* p : group) {
      spread += std::pow(p->tx - report.transform.tx, 2) +
                std::pow(p->ty - report.transform.ty, 2) + std::pow(p->tz - report.transform.tz, 2);
    }
    report.inliers = static_cast<int>(group.size());
    report.residual = std::sqrt(spread / n);
    report.matchValue = n / options_.topMatches * (sim / n);
    report.hypotheses = static_cast<int>(k);
    report.found = report.inliers >= options_.minGroup;
    out.push_back(report);
  }
  return out;
}

}  // namespace omra::server
