// SessionState: what every manager of a session needs to know about the run: its mode, the
// account digest, the host's callbacks, the cloud client, the data manager once it exists, when
// the run began and became ready, and the restart count that ends periodic work.
//
// Shared (by shared_ptr) among the session and its managers, and read from the main queue and the
// kit's queues. Every method is thread-safe: the fixed fields are set in the constructor, the data
// manager and the ready time are guarded by a mutex, the restart count is atomic.
//
// Kept in this header so that the mapping managers, which hold the state, need not link the
// session library.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "omrakit/map_asset.h"
#include "omrakit/map_status.h"
#include "omrakit/session_mode.h"
#include "src/cloud/cloud_api.h"
#include "src/foundation/fatal.h"

namespace omra {

class DataManager;  // src/mapping/data_manager.h

class SessionState {
 public:
  using Clock = std::chrono::system_clock;
  using Date = Clock::time_point;

  SessionState(SessionMode sessionMode, std::string developerKeyHash,
               std::shared_ptr<CloudAPI> cloudApi, Date initializationTime,
               StatusCallback statusCallback, AssetsFoundCallback assetsFoundCallback)
      : sessionMode_(sessionMode),
        developerKeyHash_(std::move(developerKeyHash)),
        assetsFoundCallback_(std::move(assetsFoundCallback)),
        statusCallback_(std::move(statusCallback)),
        cloudApi_(std::move(cloudApi)),
        initializationTime_(initializationTime) {}

  SessionState(const SessionState&) = delete;
  SessionState& operator=(const SessionState&) = delete;

  SessionMode sessionMode() const { return sessionMode_; }
  // Every mode other than mapping localizes.
  bool isLocalizationMode() const { return sessionMode_ != SessionMode::mapping; }
  const std::string& developerKeyHash() const { return developerKeyHash_; }
  const AssetsFoundCallback& assetsFoundCallback() const { return assetsFoundCallback_; }
  // Already delivers on the main queue (the session wraps the host's callback).
  const StatusCallback& statusCallback() const { return statusCallback_; }
  const std::shared_ptr<CloudAPI>& cloudApi() const { return cloudApi_; }
  Date initializationTime() const { return initializationTime_; }

  // Null until the session starts its data manager.
  std::shared_ptr<DataManager> dataManager() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return dataManager_;
  }
  // Written by the session, once, when it starts the data manager.
  void setDataManager(std::shared_ptr<DataManager> dataManager) {
    std::lock_guard<std::mutex> lock(mutex_);
    dataManager_ = std::move(dataManager);
  }

  // The identifier of the current mode's session: the data manager's map UUID in mapping mode,
  // its localization session UUID otherwise; absent without a data manager. Instantiated where
  // DataManager is complete; DataManager::mapUUID() and localizationSessionUUID() return
  // std::optional<std::string> and are thread-safe.
  template <class DM = DataManager>
  std::optional<std::string> currentSessionIdentifier() const {
    const std::shared_ptr<DM> dm = dataManager();
    if (!dm) return std::nullopt;
    return isLocalizationMode() ? dm->localizationSessionUUID() : dm->mapUUID();
  }

  // Absent until the session has finished starting.
  std::optional<Date> readyTime() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return readyTime_;
  }
  void setReadyTime(Date readyTime) {
    std::lock_guard<std::mutex> lock(mutex_);
    readyTime_ = readyTime;
  }
  // Seconds from the ready time to now; absent before it is set.
  std::optional<double> secondsSinceReady(Date now = Clock::now()) const {
    const auto ready = readyTime();
    if (!ready) return std::nullopt;
    return std::chrono::duration<double>(now - *ready).count();
  }

  // Periodic work captures the count when it starts and stops once it has changed.
  int64_t restartCount() const { return restartCount_.load(std::memory_order_acquire); }
  // Called by dispose; returns the new count. Overflow is fatal.
  int64_t incrementRestartCount() {
    const int64_t previous = restartCount_.fetch_add(1, std::memory_order_acq_rel);
    OMRA_CHECK(previous != std::numeric_limits<int64_t>::max(), "restartCount overflow");
    return previous + 1;
  }

 private:
  const SessionMode sessionMode_;
  const std::string developerKeyHash_;
  const AssetsFoundCallback assetsFoundCallback_;
  const StatusCallback statusCallback_;
  const std::shared_ptr<CloudAPI> cloudApi_;
  const Date initializationTime_;

  mutable std::mutex mutex_;
  std::shared_ptr<DataManager> dataManager_;  // guarded by mutex_
  std::optional<Date> readyTime_;             // guarded by mutex_
  std::atomic<int64_t> restartCount_{0};
};

}  // namespace omra
