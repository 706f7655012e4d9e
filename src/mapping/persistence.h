// The per-session recorder: frames, planes, objects and activations become cloud records; scan
// progress is counted; in localization the relocalization results re-place the stored assets.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/ar_types.h"
#include "omrakit/map_asset.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"
#include "omrakit/vector3.h"
#include "src/cloud/record_writer.h"
#include "src/mapping/scan_progress.h"

namespace omra {

class SessionState;
class DataManager;
class CameraPathModelQueue;
class PointCloudModelQueue;
class Activation;
class DetectedObject;

// Owned by the session facade through shared_ptr (the polling loop and in-flight work keep it
// alive). Thread-safe: frames arrive on the update queue, planes on the host's thread, objects and
// activations on the detection thread, transform answers on the main queue; every counter is
// atomic or guarded by the mutex of its path. Destruction flushes the record queues.
class Persistence : public std::enable_shared_from_this<Persistence> {
 public:
  struct Deps {
    std::shared_ptr<RecordStore> records;
    std::shared_ptr<Logger> logger;
    Dispatcher* dispatcher = nullptr;  // not owned (see DataManager::Deps)
    ArPlatformVersion platformVersion;
  };
  using StoreCallback = std::function<void(bool)>;

  static std::shared_ptr<Persistence> create(std::shared_ptr<SessionState> sessionState,
                                             ScanProgress::ProgressCallback progressCallback,
                                             Deps deps);
  ~Persistence();
  Persistence(const Persistence&) = delete;
  Persistence& operator=(const Persistence&) = delete;

  // The frame number stamped on every record: advanced by one per frame and per plane event.
  int64_t advanceFrameCounter();
  int64_t frameCounter() const { return frameCounter_.load(); }

  // Camera pose (and, with BUILD_HEAVY_MAP, raw feature points) to the record queues.
  void uploadARKitInfo(const ArFrame& frame);
  // Counts the first two vertical planes (11.3 or later), then writes the plane.
  void planeDetected(const ArPlaneAnchor& anchor);
  // Writes a plane record; counts the first horizontal plane.
  void writePlane(const ArPlaneAnchor& anchor);
  // Writes a plane-removal record.
  void planeRemoved(const ArPlaneAnchor& anchor);
  // Records accepted objects and counts new, distant ones.
  void objectsFound(const std::vector<DetectedObject>& objects);
  void uploadImageActivation(const Activation& activation);
  // Drains both record queues.
  void flush();

  // The two relocalization triggers registered with scan progress.
  void triggerTransformCompute();
  void triggerImageMatchingCompute();

  // One best-transform answer (the data manager's handler).
  void transformRetrieved(const std::string& algorithm, const std::string& transform,
                          float matchValue);
  // The preloaded placements moved into this session's frame; empty when the transform text is
  // unreadable (logged).
  std::vector<MapAsset> convertAssetsToLocalFrame(const std::string& transform);
  // Polls for best transforms every RETRIEVE_ASSETS_INTERVAL seconds while the restart count
  // stays initialRestartCount.
  void queryAssets(int64_t initialRestartCount);
  // Stores the host's placements; true when the request was sent.
  bool storePlacement(std::vector<MapAsset> assets, StoreCallback callback);

  static bool isNewObjectDistant(const Vector3& position, const std::vector<Vector3>& seen,
                                 float threshold);
  // "x,y,z|x,y,z..." or "-" when there are none.
  static std::string vertexString(const std::vector<Float3>& vertices);
  // The 16 elements column by column, joined by ",".
  static std::string transformString(const Matrix4x4& transform);

  ScanProgress& scanProgress() { return *scanProgress_; }
  std::optional<float> bestImageMatcherMatchValue() const;
  std::optional<float> bestSULocalizerMatchValue() const;
  std::vector<Vector3> disperateObjectsSeen() const;
  std::vector<std::string> uniqueLabelsSeen() const;

 private:
  Persistence(std::shared_ptr<SessionState> sessionState, Deps deps);
  void registerTriggers();
  // The data manager when it holds the current mode's session identifier, with that identifier.
  bool recordingPossible(std::shared_ptr<DataManager>* dataManager, std::string* sessionId) const;
  bool isLocalizationSession() const;
  void triggerCompute(bool transform);

  std::shared_ptr<SessionState> sessionState_;
  Deps deps_;
  RecordWriter writer_;
  std::unique_ptr<ScanProgress> scanProgress_;
  std::shared_ptr<SerialQueue> reloadAssetQueue_;

  std::atomic<int64_t> frameCounter_{0};
  std::atomic<int64_t> savedAssetCount_{0};
  const int64_t objectsSeen_ = 0;

  std::mutex planeMutex_;
  int64_t verticalPlaneCount_ = 0;
  bool seenHorizontalPlane_ = false;

  mutable std::mutex objectMutex_;
  std::vector<Vector3> disperateObjectsSeen_;
  std::vector<std::string> uniqueLabelsSeen_;

  // Never written in this version; storing in localization is refused until they are.
  mutable std::mutex resolvedMutex_;
  std::optional<std::vector<float>> resolvedTranslation_;
  std::optional<float> resolvedConfidence_;
  std::optional<std::vector<float>> resolvedOrientation_;

  std::mutex queuesMutex_;
  std::unique_ptr<CameraPathModelQueue> cameraPathModelQueue_;
  std::unique_ptr<PointCloudModelQueue> arFeatureModelQueue_;

  // Serialises transform answers; the best values are also readable without it.
  std::mutex transformMutex_;
  mutable std::mutex bestMutex_;
  std::optional<float> bestImageMatcherMatchValue_;
  std::optional<float> bestSULocalizerMatchValue_;
  int64_t transformReturnCountSU_ = 0;
  int64_t transformReturnCountFullImageMatch_ = 0;
};

}  // namespace omra
