#include "server/session_record_log.h"

#include <algorithm>
#include <limits>

#include "server/plane_records.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"

namespace omra::server {
namespace {

enum TableIndex : size_t { kObjects, kPlanes, kPoints, kPath, kFeatures };
// The camera path before the features, as readPosedFeatures reads them (no difference to the
// result: frames are paired with poses when the scene is taken).
const char* const kTableNames[] = {SceneUnderstandingModel::kTableName,
                                   DetectedPlaneModel::kTableName, PointCloudModel::kTableName,
                                   CameraPathModel::kTableName, ImageFeaturesModel::kTableName};

Item keyAt(const std::string& sessionId, int64_t recordId) {
  return Item{{"SessionId", AttributeValue::string(sessionId)},
              {kRecordIdAttribute, integerNumber(recordId)}};
}

}  // namespace

void SessionRecordLog::note(int64_t recordId) {
  if (recordId <= contiguous_) return;
  if (recordId != contiguous_ + 1) {
    ahead_.insert(recordId);
    return;
  }
  ++contiguous_;
  while (!ahead_.empty() && *ahead_.begin() == contiguous_ + 1) {
    ahead_.erase(ahead_.begin());
    ++contiguous_;
  }
}

// Puts value where recordId belongs among ids (at the end, unless it arrived late).
template <class T>
void insertByRecord(std::vector<int64_t>& ids, std::vector<T>& values, int64_t recordId, T value) {
  auto at = std::upper_bound(ids.begin(), ids.end(), recordId);
  values.insert(values.begin() + (at - ids.begin()), std::move(value));
  ids.insert(at, recordId);
}

// Takes what a record of newer (or equal) identifier says of a key over what an older one said.
template <class K, class V>
void mergeByRecord(std::map<K, std::pair<int64_t, V>>& into, const std::map<K, V>& from,
                   int64_t recordId) {
  for (const auto& [key, value] : from) {
    auto [it, fresh] = into.try_emplace(key, recordId, value);
    if (!fresh && it->second.first <= recordId) it->second = {recordId, value};
  }
}

void SessionRecordLog::take(size_t table, int64_t recordId, const Item& item) {
  switch (table) {
    case kObjects:
      if (auto o = addObservation(item, objectStats_)) {
        insertByRecord(observationIds_, observations_, recordId, std::move(*o));
      }
      break;
    case kPlanes:
      if (auto e = planeEventOf(item)) {
        insertByRecord(planeEventIds_, planeEvents_, recordId, std::move(*e));
      } else {
        ++planesSkipped_;
      }
      break;
    case kPoints: {
      std::map<uint64_t, Vec3> points;
      addPoints(item, points, pointStats_);
      mergeByRecord(points_, points, recordId);
      break;
    }
    case kPath: {
      std::map<int64_t, Mat4> poses;
      addPoses(item, poses, frameStats_);
      mergeByRecord(poses_, poses, recordId);
      break;
    }
    default:
      if (auto f = addFeatures(item, frameStats_)) {
        featureValues_ += f->features.size();
        insertByRecord(frameIds_, frames_, recordId, std::move(*f));
      }
      break;
  }
}

void SessionRecordLog::update(RecordStore& store, std::optional<StoreError>* error) {
  const AttributeValue hash = AttributeValue::string(sessionId_);
  // With a gap every table is read again from it: the missing records may be in any of them.
  const bool fromGap = hasGap();
  for (size_t t = 0; t < kTables; ++t) {
    Table& table = tables_[t];
    std::optional<Item> start = table.after;
    if (fromGap && !table.seen.empty() && *table.seen.rbegin() > contiguous_) {
      start = keyAt(sessionId_, contiguous_);
    }
    while (true) {
      std::optional<StoreError> pageError;
      QueryPage page = store.query(kTableNames[t], hash, start, 0, &pageError);
      if (pageError) {
        if (error) *error = std::move(pageError);
        return;
      }
      for (const Item& item : page.items) {
        std::optional<int64_t> id;
        readInteger(item, kRecordIdAttribute, id);
        // The store's key always has one; without it the record goes last.
        if (id) {
          if (!table.seen.insert(*id).second) continue;
          note(*id);
        }
        take(t, id.value_or(std::numeric_limits<int64_t>::max()), item);
      }
      if (!table.seen.empty()) table.after = keyAt(sessionId_, *table.seen.rbegin());
      if (!page.lastEvaluatedKey) break;
      start = std::move(page.lastEvaluatedKey);
    }
  }
}

SessionScene SessionRecordLog::scene(bool images) const {
  SessionScene scene;
  scene.evidence.landmarks = buildLandmarks(observations_);
  size_t planesSkipped = 0;
  scene.evidence.planes = foldPlaneEvents(planeEvents_, &planesSkipped);
  scene.evidence.points.reserve(points_.size());
  for (const auto& [id, p] : points_) scene.evidence.points.push_back(p.second);
  scene.stats.records = objectStats_.records + pointStats_.records;
  scene.stats.skippedObjects = objectStats_.skipped;
  scene.stats.skippedPoints = pointStats_.skipped;
  scene.stats.skippedPlanes = planesSkipped_ + planesSkipped;
  if (images) {
    size_t unpaired = 0;
    std::map<int64_t, Mat4> poses;
    for (const auto& [frame, p] : poses_) poses.emplace_hint(poses.end(), frame, p.second);
    scene.frames = pairWithPoses(frames_, poses, &unpaired);
    scene.stats.records += frameStats_.records;
    scene.stats.skippedFrames = frameStats_.skipped + unpaired;
  }
  return scene;
}

size_t SessionRecordLog::records() const {
  size_t n = 0;
  for (const Table& t : tables_) n += t.seen.size();
  return n;
}

size_t SessionRecordLog::bytes() const {
  // Rough: the vectors' payloads and a tree node's worth for each map and set entry.
  constexpr size_t kNode = 48;
  return sizeof(*this) + featureValues_ * sizeof(float) +
         frames_.capacity() * (sizeof(FrameFeatures) + 8) +
         poses_.size() * (sizeof(Mat4) + 8 + kNode) + points_.size() * (sizeof(Vec3) + 8 + kNode) +
         observations_.capacity() * (sizeof(ObjectObservation) + 24) +
         planeEvents_.capacity() * (sizeof(DetectedPlaneModel) + 72) +
         (records() + ahead_.size()) * kNode;
}

}  // namespace omra::server
