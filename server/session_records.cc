#include "server/session_records.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/compression.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/scene_understanding_model.h"

namespace omra::server {
namespace {

template <class T>
bool parseNumber(std::string_view piece, T& out) {
  auto [ptr, ec] = std::from_chars(piece.data(), piece.data() + piece.size(), out);
  return ec == std::errc() && ptr == piece.data() + piece.size() && std::isfinite(out);
}

// Reads what the text holds at pos into out (any number, NaN included); false when it is none.
template <class T>
bool takeNumber(std::string_view text, size_t& pos, T& out) {
  auto [ptr, ec] = std::from_chars(text.data() + pos, text.data() + text.size(), out);
  if (ec != std::errc()) return false;
  pos = static_cast<size_t>(ptr - text.data());
  return true;
}

bool take(std::string_view text, size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

}  // namespace

std::optional<std::vector<float>> parseFeatureText(std::string_view text) {
  std::vector<float> out;
  if (text.empty()) return out;
  out.reserve(text.size() / 9 + 1);
  size_t pos = 0;
  while (true) {
    const size_t end = std::min(text.find(',', pos), text.size());
    float v = 0;
    if (!parseNumber(text.substr(pos, end - pos), v)) return std::nullopt;
    out.push_back(v);
    if (end == text.size()) break;
    pos = end + 1;
  }
  return out;
}

std::optional<Mat4> parsePoseText(std::string_view text) {
  Mat4 m{};
  size_t pos = 0;
  for (int i = 0; i < 16; ++i) {
    const size_t end = text.find(',', pos);
    if (end == std::string_view::npos) return std::nullopt;
    double v = 0;
    if (!parseNumber(text.substr(pos, end - pos), v)) return std::nullopt;
    m[static_cast<size_t>(i)] = v;
    pos = end + 1;
  }
  if (pos != text.size()) return std::nullopt;
  return m;
}

std::optional<std::vector<std::pair<uint64_t, Vec3>>> parsePointText(std::string_view text) {
  std::vector<std::pair<uint64_t, Vec3>> out;
  size_t pos = 0;
  if (!take(text, pos, '{')) return std::nullopt;
  if (take(text, pos, '}')) return pos == text.size() ? std::optional(out) : std::nullopt;
  while (true) {
    uint64_t id = 0;
    Vec3 p{};
    if (!takeNumber(text, pos, id) || !take(text, pos, ':') || !take(text, pos, '[')) {
      return std::nullopt;
    }
    for (size_t k = 0; k < 3; ++k) {
      if ((k > 0 && !take(text, pos, ',')) || !takeNumber(text, pos, p[k])) return std::nullopt;
    }
    if (!take(text, pos, ']')) return std::nullopt;
    out.emplace_back(id, p);
    if (take(text, pos, '}')) break;
    if (!take(text, pos, ',')) return std::nullopt;
  }
  if (pos != text.size()) return std::nullopt;
  return out;
}

void addPoints(const Item& item, std::map<uint64_t, Vec3>& latest, ReadStats& stats) {
  ++stats.records;
  auto m = PointCloudModel::fromItem(item);
  std::optional<std::string> text;
  if (m && m->featuresC) text = decompress(*m->featuresC);
  auto points = text ? parsePointText(*text) : std::nullopt;
  if (!points) {
    ++stats.skipped;
    return;
  }
  for (const auto& [id, p] : *points) {
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) {
      ++stats.skipped;
      continue;
    }
    latest[id] = p;
  }
}

std::vector<Vec3> readPoints(RecordStore& store, const std::string& sessionId,
                             std::optional<StoreError>* error, ReadStats* stats) {
  ReadStats local;
  std::map<uint64_t, Vec3> latest;
  for (const Item& item :
       queryAll(store, PointCloudModel::kTableName, AttributeValue::string(sessionId), error)) {
    addPoints(item, latest, local);
  }
  std::vector<Vec3> out;
  out.reserve(latest.size());
  for (const auto& [id, p] : latest) out.push_back(p);
  if (stats) *stats = local;
  return out;
}

std::optional<ObjectObservation> addObservation(const Item& item, ReadStats& stats) {
  ++stats.records;
  auto m = SceneUnderstandingModel::fromItem(item);
  if (!m || !m->objectId || !m->objectName || !m->positionX || !m->positionY || !m->positionZ ||
      !std::isfinite(*m->positionX) || !std::isfinite(*m->positionY) ||
      !std::isfinite(*m->positionZ)) {
    ++stats.skipped;
    return std::nullopt;
  }
  return ObjectObservation{
      *m->objectId, *m->objectName, {*m->positionX, *m->positionY, *m->positionZ}};
}

std::vector<ObjectObservation> readObservations(RecordStore& store, const std::string& sessionId,
                                                std::optional<StoreError>* error,
                                                ReadStats* stats) {
  std::vector<ObjectObservation> out;
  ReadStats local;
  for (const Item& item : queryAll(store, SceneUnderstandingModel::kTableName,
                                   AttributeValue::string(sessionId), error)) {
    if (auto o = addObservation(item, local)) out.push_back(std::move(*o));
  }
  if (stats) *stats = local;
  return out;
}

void addPoses(const Item& item, std::map<int64_t, Mat4>& poses, ReadStats& stats) {
  ++stats.records;
  auto m = CameraPathModel::fromItem(item);
  if (!m || !m->transforms) {
    ++stats.skipped;
    return;
  }
  for (const auto& [frameText, poseText] : *m->transforms) {
    int64_t frame = 0;
    auto pose = parsePoseText(poseText);
    if (!parseNumber(std::string_view(frameText), frame) || !pose) {
      ++stats.skipped;
      continue;
    }
    poses[frame] = *pose;
  }
}

std::optional<FrameFeatures> addFeatures(const Item& item, ReadStats& stats) {
  ++stats.records;
  auto m = ImageFeaturesModel::fromItem(item);
  std::optional<std::string> text;
  if (m && m->featuresC) text = decompress(*m->featuresC);
  // An empty vector compresses to a valid stream that inflates to nothing: no use here.
  auto features = text ? parseFeatureText(*text) : std::nullopt;
  if (!m || !m->frameId || !features || features->empty()) {
    ++stats.skipped;
    return std::nullopt;
  }
  return FrameFeatures{*m->frameId, std::move(*features)};
}

std::vector<PosedFeatures> pairWithPoses(const std::vector<FrameFeatures>& frames,
                                         const std::map<int64_t, Mat4>& poses, size_t* skipped,
                                         int maxFrameGap) {
  std::vector<PosedFeatures> out;
  out.reserve(frames.size());
  size_t bad = 0;
  for (const FrameFeatures& ff : frames) {
    // The nearest camera-path frame; on a tie the earlier one.
    const int64_t f = ff.frameId;
    const Mat4* pose = nullptr;
    int64_t gap = maxFrameGap + 1;
    auto it = poses.lower_bound(f - maxFrameGap);
    for (; it != poses.end() && it->first <= f + maxFrameGap; ++it) {
      const int64_t d = std::abs(it->first - f);
      if (d < gap) {
        gap = d;
        pose = &it->second;
      }
    }
    if (!pose) {
      // Inside the recorded path a missing pose contradicts the records; beyond its end the
      // path's next block has simply not arrived yet.
      if (!poses.empty() && f <= poses.rbegin()->first) ++bad;
      continue;
    }
    out.push_back({f, *pose, ff.features});
  }
  // Records come in the order the kit wrote them; the matcher wants frame order.
  std::stable_sort(out.begin(), out.end(), [](const PosedFeatures& a, const PosedFeatures& b) {
    return a.frameId < b.frameId;
  });
  if (skipped) *skipped += bad;
  return out;
}

std::vector<PosedFeatures> readPosedFeatures(RecordStore& store, const std::string& sessionId,
                                             std::optional<StoreError>* error, ReadStats* stats,
                                             int maxFrameGap) {
  ReadStats local;
  const AttributeValue hash = AttributeValue::string(sessionId);
  std::map<int64_t, Mat4> poses;
  for (const Item& item : queryAll(store, CameraPathModel::kTableName, hash, error)) {
    addPoses(item, poses, local);
  }
  if (error && *error) return {};
  std::vector<FrameFeatures> frames;
  for (const Item& item : queryAll(store, ImageFeaturesModel::kTableName, hash, error)) {
    if (auto f = addFeatures(item, local)) frames.push_back(std::move(*f));
  }
  std::vector<PosedFeatures> out = pairWithPoses(frames, poses, &local.skipped, maxFrameGap);
  if (stats) *stats = local;
  return out;
}

}  // namespace omra::server
