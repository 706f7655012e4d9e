#include "server/localizers/map_index_cache.h"

#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"

namespace omra::server {
namespace {

// The key of an item: all a store needs to go on after it.
Item keyOf(const Item& item) {
  Item key;
  for (const char* name : {"SessionId", kRecordIdAttribute}) {
    auto it = item.find(name);
    if (it != item.end()) key.emplace(name, it->second);
  }
  return key;
}

const char* const kRecordTables[] = {SceneUnderstandingModel::kTableName,
                                     DetectedPlaneModel::kTableName, PointCloudModel::kTableName,
                                     ImageFeaturesModel::kTableName, CameraPathModel::kTableName};

}  // namespace

MapIndexCache::NewestKeys MapIndexCache::newestKeys(RecordStore& store, const std::string& mapId,
                                                    std::optional<StoreError>* error) {
  NewestKeys out;
  const AttributeValue hash = AttributeValue::string(mapId);
  for (size_t t = 0; t < kTables; ++t) {
    std::optional<Item> start;
    while (true) {
      QueryPage page = store.query(kRecordTables[t], hash, start, 0, error);
      if (error && *error) return out;
      if (!page.items.empty()) out[t] = keyOf(page.items.back());
      if (!page.lastEvaluatedKey) break;
      start = std::move(page.lastEvaluatedKey);
    }
  }
  return out;
}

bool MapIndexCache::grewSince(RecordStore& store, const std::string& mapId,
                              const NewestKeys& newest, std::optional<StoreError>* error) {
  const AttributeValue hash = AttributeValue::string(mapId);
  for (size_t t = 0; t < kTables; ++t) {
    std::optional<Item> start = newest[t];
    // A remote store may hand out a key with an empty page behind it; a few steps settle that.
    for (int step = 0; step < 4; ++step) {
      QueryPage page = store.query(kRecordTables[t], hash, start, 1, error);
      if (error && *error) return true;
      if (!page.items.empty()) return true;
      if (!page.lastEvaluatedKey) break;
      start = std::move(page.lastEvaluatedKey);
    }
  }
  return false;
}

std::shared_ptr<const MapIndex> MapIndexCache::fresh(RecordStore& store, const std::string& mapId,
                                                     std::optional<StoreError>* error) {
  std::optional<NewestKeys> cachedKeys;
  std::shared_ptr<const MapIndex> cached;
  {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(mapId);
    if (it != entries_.end()) {
      cached = it->second.index;
      cachedKeys = it->second.newest;
      lru_.splice(lru_.begin(), lru_, it->second.use);
    }
  }
  if (cached && !grewSince(store, mapId, *cachedKeys, error)) return cached;
  return nullptr;
}

std::shared_ptr<std::mutex> MapIndexCache::buildLock(const std::string& mapId) {
  std::lock_guard lock(mutex_);
  std::shared_ptr<std::mutex>& slot = building_[mapId];
  if (!slot) slot = std::make_shared<std::mutex>();
  return slot;
}

void MapIndexCache::dropBuildLock(const std::string& mapId, std::shared_ptr<std::mutex>& held) {
  std::lock_guard lock(mutex_);
  held.reset();
  auto it = building_.find(mapId);
  if (it != building_.end() && it->second.use_count() == 1) building_.erase(it);
}

std::shared_ptr<const MapIndex> MapIndexCache::get(RecordStore& store, const std::string& mapId,
                                                   std::optional<StoreError>* error, bool* built) {
  if (built) *built = false;
  std::optional<StoreError> own;
  if (auto cached = fresh(store, mapId, &own)) return cached;
  if (own) {
    if (error) *error = own;
    return nullptr;
  }
  std::shared_ptr<std::mutex> lock = buildLock(mapId);
  std::unique_lock building(*lock);
  // Someone else may have built it while this caller waited.
  if (auto cached = fresh(store, mapId, &own)) {
    building.unlock();
    dropBuildLock(mapId, lock);
    return cached;
  }
  // Keys first: records that arrive while the index is built are seen as new next time.
  NewestKeys keys;
  std::shared_ptr<const MapIndex> index;
  if (!own) keys = newestKeys(store, mapId, &own);
  if (!own) {
    index = std::make_shared<const MapIndex>(readSessionScene(store, mapId, true, &own));
  }
  if (own) {
    building.unlock();
    dropBuildLock(mapId, lock);
    if (error) *error = own;
    return nullptr;
  }
  if (built) *built = true;
  const size_t size = index->bytes();
  {
    std::lock_guard guard(mutex_);
    auto it = entries_.find(mapId);
    if (it != entries_.end()) {
      bytes_ -= it->second.bytes;
      lru_.erase(it->second.use);
      entries_.erase(it);
    }
    if (size <= maxBytes_) {
      lru_.push_front(mapId);
      entries_[mapId] = Entry{index, std::move(keys), size, lru_.begin()};
      bytes_ += size;
      while (bytes_ > maxBytes_ && !lru_.empty()) {
        auto victim = entries_.find(lru_.back());
        bytes_ -= victim->second.bytes;
        entries_.erase(victim);
        lru_.pop_back();
      }
    }
  }
  building.unlock();
  dropBuildLock(mapId, lock);
  return index;
}

size_t MapIndexCache::entries() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

size_t MapIndexCache::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

}  // namespace omra::server
