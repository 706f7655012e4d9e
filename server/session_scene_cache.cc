#include "server/session_scene_cache.h"

namespace omra::server {

SessionSceneCache::View SessionSceneCache::get(RecordStore& store, const std::string& sessionId,
                                               bool images, std::optional<StoreError>* error) {
  std::shared_ptr<Entry> entry;
  {
    std::lock_guard lock(mutex_);
    auto it = slots_.find(sessionId);
    if (it != slots_.end()) {
      entry = it->second.entry;
      lru_.splice(lru_.begin(), lru_, it->second.use);
    } else {
      entry = std::make_shared<Entry>(sessionId);
      lru_.push_front(sessionId);
      slots_.emplace(sessionId, Slot{entry, 0, lru_.begin()});
    }
  }
  View view;
  view.memo = entry->memo;
  size_t size = 0;
  {
    std::lock_guard lock(entry->mutex);
    const size_t before = entry->log.records();
    entry->log.update(store, error);
    view.newRecords = entry->log.records() - before;
    view.scene = entry->log.scene(images);
    // The memo's answers: a key and an answer in a hash node each.
    size = entry->log.bytes() + entry->memo->size() * 48;
  }
  account(sessionId, entry, size);
  return view;
}

void SessionSceneCache::account(const std::string& sessionId, const std::shared_ptr<Entry>& entry,
                                size_t size) {
  std::lock_guard lock(mutex_);
  auto it = slots_.find(sessionId);
  // Evicted (or replaced) meanwhile: this entry is no longer the cache's to count.
  if (it == slots_.end() || it->second.entry != entry) return;
  bytes_ = bytes_ - it->second.bytes + size;
  it->second.bytes = size;
  while (bytes_ > maxBytes_ && !lru_.empty()) {
    auto victim = slots_.find(lru_.back());
    bytes_ -= victim->second.bytes;
    slots_.erase(victim);
    lru_.pop_back();
  }
}

size_t SessionSceneCache::entries() const {
  std::lock_guard lock(mutex_);
  return slots_.size();
}

size_t SessionSceneCache::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

}  // namespace omra::server
