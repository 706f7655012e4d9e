#include <chrono>
#include <limits>
#include <mutex>
#include <utility>

#include "omrakit/session.h"
#include "src/cloud/cloud_api.h"
#include "src/cloud/metrics.h"
#include "src/foundation/fatal.h"
#include "src/foundation/json_reader.h"
#include "src/mapping/data_manager.h"
#include "src/mapping/persistence.h"
#include "src/platform/md5.h"
#include "src/platform/paced_serial_queue.h"
#include "src/scene/scene_understanding.h"
#include "src/session/callback_gate.h"
#include "src/session/session_state.h"

namespace omra {
namespace {

std::atomic<int64_t> gSessionsCreated{0};

void addChecked(std::atomic<int64_t>& counter, const char* what) {
  const int64_t previous = counter.fetch_add(1, std::memory_order_relaxed);
  if (previous == std::numeric_limits<int64_t>::max()) fatalError(what);
}

const char* modeDescription(SessionMode mode) {
  return mode == SessionMode::mapping ? "mapping" : "localization";
}

// The frame path's counters and flag, shared with the work it queues (which may outlive the
// session object).
struct FrameCounters {
  std::atomic<bool> updateInProgress{false};
  std::atomic<int64_t> fpsInputCounter{0};
  std::atomic<int64_t> fpsDataProcess1Counter{0};
  std::atomic<int64_t> fpsDataProcess2Counter{0};
  std::atomic<float> fpsInput{0};
  std::atomic<float> fpsDataProcess1{0};
  std::atomic<float> fpsDataProcess2{0};
};

}  // namespace

class OmraSession::Impl {
 public:
  Env env;
  SessionOptions options;
  SessionMode mode = SessionMode::mapping;
  std::string mapID;
  std::string userID;
  std::string appID;
  std::string developerKeyHash;
  std::shared_ptr<CloudAPI> cloudApi;
  std::shared_ptr<SessionState> sessionState;
  std::shared_ptr<Persistence> persistenceManager;
  std::shared_ptr<DataManager> dataManager;
  // The pipeline takes one frame thread at a time; hosts may call update() from any thread.
  std::mutex objectDetectorMutex;
  std::unique_ptr<SceneUnderstanding> objectDetector;
  // The check queue is kept for its label; the check-and-set itself is one atomic exchange, which
  // is what the queue guaranteed and costs the frame thread no hand-off.
  std::shared_ptr<SerialQueue> updateInProgressCheckSyncQueue;
  std::shared_ptr<SerialQueue> updateQueue;
  std::shared_ptr<FrameCounters> counters = std::make_shared<FrameCounters>();
  std::atomic<bool> disposed{false};
  // Every host callback runs through it; closed when the session object goes away.
  std::shared_ptr<CallbackGate> gate = std::make_shared<CallbackGate>();
  const bool arSessionConfigChecked = false;  // reserved; nothing sets it

  // The loop holds the state weakly, so that a dropped session is not kept alive by its meter.
  static void scheduleMeasureFPS(Dispatcher* dispatcher, std::shared_ptr<SerialQueue> timerQueue,
                                 std::weak_ptr<SessionState> state,
                                 std::shared_ptr<FrameCounters> counters);
};

void OmraSession::Impl::scheduleMeasureFPS(Dispatcher* dispatcher,
                                           std::shared_ptr<SerialQueue> timerQueue,
                                           std::weak_ptr<SessionState> state,
                                           std::shared_ptr<FrameCounters> counters) {
  SerialQueue& queue = *timerQueue;
  queue.asyncAfter(std::chrono::seconds(1), [dispatcher, timerQueue, state, counters] {
    dispatcher->mainQueue().post([dispatcher, timerQueue, state, counters] {
      counters->fpsInput = static_cast<float>(counters->fpsInputCounter.exchange(0));
      counters->fpsDataProcess1 = static_cast<float>(counters->fpsDataProcess1Counter.exchange(0));
      counters->fpsDataProcess2 = static_cast<float>(counters->fpsDataProcess2Counter.exchange(0));
      // Against 0, not the count seen at start: once disposed, the meter never resumes.
      std::shared_ptr<SessionState> live = state.lock();
      if (live && live->restartCount() == 0) {
        scheduleMeasureFPS(dispatcher, timerQueue, state, counters);
      }
    });
  });
}

OmraSession::OmraSession(Env env, SessionMode mapMode, std::string userID, std::string mapID,
                         const std::string& developerKey, double screenHeight, double screenWidth,
                         AssetsFoundCallback assetsFoundCallback, ProgressCallback progressCallback,
                         StatusCallback statusCallback,
                         ObjectDetectedCallback objectDetectedCallback, SessionOptions options)
    : impl_(std::make_shared<Impl>()) {
  Impl& s = *impl_;
  OMRA_CHECK(env.dispatcher && env.http && env.logger && env.device && env.records,
             "OmraSession needs an Env with dispatcher, http, logger, device and records");
  s.env = std::move(env);
  s.options = std::move(options);
  s.mode = mapMode;
  s.updateInProgressCheckSyncQueue =
      s.env.dispatcher->makeSerialQueue("com.omra.OmraSession.updatecheck");
  // One task per frame: a paced queue spares the frame thread the cost of waking a worker.
  s.updateQueue = std::make_shared<PacedSerialQueue>(
      s.env.dispatcher->makeSerialQueue("com.omra.OmraSession.updatequeue"),
      PacedSerialQueue::Options{});
  s.env.logger->print("initializing OmraSession");
  const auto initializationTime = std::chrono::system_clock::now();

  std::optional<std::string> bundle = s.env.device->bundleIdentifier();
  if (!bundle || bundle->empty()) {
    fatalError(
        "OmraSession: the host application's bundle identifier is missing (set "
        "Config.bundleIdentifier or OMRA_BUNDLE_ID)");
  }
  s.appID = *bundle;
  s.userID = std::move(userID);
  s.mapID = std::move(mapID);

  // Not owned: closures that outlive the session must not keep the dispatcher (see Env).
  Dispatcher* dispatcher = s.env.dispatcher.get();
  const std::shared_ptr<CallbackGate>& gate = s.gate;
  StatusCallback mapStatusCallback =
      [dispatcher, host = CallbackGate::wrap(gate, std::move(statusCallback))](MapStatus status) {
        dispatcher->mainQueue().post([host, status] {
          if (host) host(status);
        });
      };
  assetsFoundCallback = CallbackGate::wrap(gate, std::move(assetsFoundCallback));
  progressCallback = CallbackGate::wrap(gate, std::move(progressCallback));
  objectDetectedCallback = CallbackGate::wrap(gate, std::move(objectDetectedCallback));
  if (s.options.callbacksOnMainQueue) {
    if (progressCallback) {
      progressCallback = [dispatcher, host = std::move(progressCallback)](int64_t count) {
        dispatcher->mainQueue().post([host, count] { host(count); });
      };
    }
    if (objectDetectedCallback) {
      objectDetectedCallback = [dispatcher, host = std::move(objectDetectedCallback)](
                                   std::vector<DetectedObject> objects) {
        dispatcher->mainQueue().post(
            [host, objects = std::move(objects)]() mutable { host(std::move(objects)); });
      };
    }
  }

  s.developerKeyHash = md5Hex(developerKey);
  // Records go out under this session's account (CloudAPI does the same for requests).
  s.env.records = storeForAccount(s.env.records, s.developerKeyHash);
  CloudServices services{s.env.http, s.env.device, s.env.metrics,
                         s.options.endpoints ? Urls(*s.options.endpoints) : Urls::shared()};
  s.cloudApi = std::make_shared<CloudAPI>(OmraSettings::USE_BETA_ALGO.load(), s.appID,
                                          s.developerKeyHash, std::move(services));
  s.sessionState =
      std::make_shared<SessionState>(mapMode, s.developerKeyHash, s.cloudApi, initializationTime,
                                     mapStatusCallback, std::move(assetsFoundCallback));
  s.persistenceManager =
      Persistence::create(s.sessionState, std::move(progressCallback),
                          {s.env.records, s.env.logger, dispatcher, s.options.platformVersion});
  addChecked(gSessionsCreated, "session count overflow");

  // Start the data manager.
  s.dataManager = DataManager::create({s.cloudApi, s.env.logger, dispatcher, s.env.location},
                                      mapMode, {s.appID, s.userID, s.mapID}, initializationTime);
  std::weak_ptr<Persistence> weakPersistence = s.persistenceManager;
  s.dataManager->setTransformRetrievedHandler([weakPersistence](const std::string& algorithm,
                                                                const std::string& transform,
                                                                float matchValue) {
    if (auto persistence = weakPersistence.lock()) {
      persistence->transformRetrieved(algorithm, transform, matchValue);
    }
  });
  s.sessionState->setDataManager(s.dataManager);
  // Identifiers go into JSON bodies and records: bytes that are not text would be refused by the
  // back end or break an encoder later, so the session does not open at all.
  const bool textIdentifiers =
      isValidUtf8(s.appID) && isValidUtf8(s.userID) && isValidUtf8(s.mapID);
  if (!textIdentifiers) {
    s.env.logger->systemLog(LogLevel::kError,
                            "OmraSession not opened: the bundle, user or map identifier is not "
                            "valid UTF-8");
    mapStatusCallback(MapStatus::networkError);
  } else if (mapMode == SessionMode::mapping) {
    s.dataManager->setMappingMode(mapStatusCallback);
  } else {
    s.dataManager->setLocalizationMode(mapStatusCallback);
  }

  s.cloudApi->postMetric(kMetricRegisterObjectDetectionCallback, std::nullopt, true, true);

  if (s.env.detector) {
    auto handler = [weakPersistence, host = std::move(objectDetectedCallback)](
                       const std::vector<DetectedObject>& objects,
                       std::shared_ptr<const Activation> activation) {
      std::shared_ptr<Persistence> persistence = weakPersistence.lock();
      if (!persistence) return;
      if (activation) persistence->uploadImageActivation(*activation);
      if (objects.empty()) return;
      persistence->objectsFound(objects);
      if (host) host(objects);
    };
    s.objectDetector = std::make_unique<SceneUnderstanding>(
        screenHeight, screenWidth, std::move(handler), s.env.detector, s.env.dispatcher,
        s.env.logger, s.env.device);
  }

  if (mapMode != SessionMode::mapping && textIdentifiers) {
    s.persistenceManager->queryAssets(s.sessionState->restartCount());
  }
  Impl::scheduleMeasureFPS(dispatcher, s.updateInProgressCheckSyncQueue, s.sessionState,
                           s.counters);
  // User and map identifiers stand side by side in this line on purpose.
  if (textIdentifiers) {
    s.env.logger->systemLog(LogLevel::kInfo, "OmraSession created for " + s.appID + " " + s.userID +
                                                 s.mapID + " - mode: " + modeDescription(mapMode));
  }
  s.sessionState->setReadyTime(std::chrono::system_clock::now());
}

OmraSession::~OmraSession() {
  dispose();
  // Replies and records still in flight finish on the kit's queues without reaching the host.
  impl_->gate->close();
}

void OmraSession::update(const ArFrame& frame) {
  Impl& s = *impl_;
  FrameCounters& counters = *s.counters;
  addChecked(counters.fpsInputCounter, "fps counter overflow");
  s.persistenceManager->advanceFrameCounter();
  if (s.objectDetector) {
    int64_t processed = 0;
    {
      std::lock_guard lock(s.objectDetectorMutex);
      s.objectDetector->processImage(frame, processed);
    }
    if (processed > 0) counters.fpsDataProcess2Counter.fetch_add(processed);
  }

  // A busy frame is dropped for recording, never queued.
  if (counters.updateInProgress.exchange(true, std::memory_order_acq_rel)) return;
  if (!s.sessionState->currentSessionIdentifier()) {
    counters.updateInProgress.store(false, std::memory_order_release);
    return;
  }
  // Only what the recording step reads is copied: the pose, and the points when they are kept.
  auto recorded = std::make_shared<ArFrame>();
  recorded->timestamp = frame.timestamp;
  recorded->camera = frame.camera;
  if (OmraSettings::BUILD_HEAVY_MAP.load(std::memory_order_relaxed) && frame.rawFeaturePoints) {
    recorded->rawFeaturePoints = frame.rawFeaturePoints;
  }
  s.updateQueue->async(
      [persistence = s.persistenceManager, counters = s.counters, recorded = std::move(recorded)] {
        persistence->uploadARKitInfo(*recorded);
        addChecked(counters->fpsDataProcess1Counter, "fps counter overflow");
        counters->updateInProgress.store(false, std::memory_order_release);
      });
}

void OmraSession::planeDetected(const ArPlaneAnchor& anchor) {
  impl_->persistenceManager->advanceFrameCounter();
  impl_->persistenceManager->planeDetected(anchor);
}

void OmraSession::planeUpdated(const ArPlaneAnchor& anchor) {
  impl_->persistenceManager->writePlane(anchor);
}

void OmraSession::planeRemoved(const AnyArAnchor& anchor) {
  impl_->persistenceManager->advanceFrameCounter();
  if (const auto* plane = std::get_if<ArPlaneAnchor>(&anchor)) {
    impl_->persistenceManager->planeRemoved(*plane);
  }
}

void OmraSession::sessionDidAdd(const std::vector<AnyArAnchor>& anchors) {
  Persistence& persistence = *impl_->persistenceManager;
  for (const AnyArAnchor& anchor : anchors) {
    const auto* plane = std::get_if<ArPlaneAnchor>(&anchor);
    if (!plane) continue;
    if (impl_->options.platformVersion.atLeast(11, 3) &&
        plane->alignment == PlaneAlignment::kVertical) {
      persistence.scanProgress().increment();
    }
    persistence.writePlane(*plane);
  }
}

void OmraSession::sessionDidUpdate(const std::vector<AnyArAnchor>& anchors) {
  for (const AnyArAnchor& anchor : anchors) {
    if (const auto* plane = std::get_if<ArPlaneAnchor>(&anchor)) {
      impl_->persistenceManager->writePlane(*plane);
    }
  }
}

void OmraSession::sessionDidRemove(const std::vector<AnyArAnchor>& anchors) {
  for (const AnyArAnchor& anchor : anchors) {
    if (const auto* plane = std::get_if<ArPlaneAnchor>(&anchor)) {
      impl_->persistenceManager->planeRemoved(*plane);
    }
  }
}

bool OmraSession::storePlacement(const std::vector<MapAsset>& assets, StoreCallback callback) {
  return impl_->persistenceManager->storePlacement(
      assets, CallbackGate::wrap(impl_->gate, std::move(callback)));
}

bool OmraSession::listNearbyMaps(const std::optional<std::string>& userID, double longitude,
                                 double latitude, double longitudeDelta, double latitudeDelta,
                                 MapsFoundCallback mapsFoundCallback) {
  Impl& s = *impl_;
  if (userID && !isValidUtf8(*userID)) {
    s.env.logger->systemLog(LogLevel::kError,
                            "listNearbyMaps: the user identifier is not valid UTF-8");
    return false;
  }
  std::shared_ptr<DataManager> manager = s.sessionState->dataManager();
  if (!manager) {
    // The text speaks of storing assets here too; it is kept word for word.
    s.env.logger->systemLog(
        LogLevel::kInfo,
        std::string("OmraSession has not yet been fully initialized. Wait for statusCallback "
                    "with .initialized before storing any assets. (mode - ") +
            modeDescription(s.mode) + ")");
    return false;
  }
  manager->cloudAPI()->listNearby(s.appID, userID, s.developerKeyHash, longitude, latitude,
                                  longitudeDelta, latitudeDelta,
                                  CallbackGate::wrap(s.gate, std::move(mapsFoundCallback)));
  return true;
}

UnityMultiplayerTransform OmraSession::unityMultiplayerSync(
    const Vector3& localA, const Vector3& localB, const Vector3& remoteA, const Vector3& remoteB,
    const std::optional<Quaternion>& rotationRemote) {
  return omra::unityMultiplayerSync(localA, localB, remoteA, remoteB, rotationRemote);
}

void OmraSession::dispose() {
  Impl& s = *impl_;
  if (s.disposed.exchange(true)) return;
  s.sessionState->incrementRestartCount();
  s.persistenceManager->flush();
  // The batched records were just handed over; give them a bounded time to leave the device
  // (a store with an outbox keeps what is left for later).
  if (!s.env.records->flush(s.env.recordFlushTimeout)) {
    s.env.logger->print("Some records are still on their way to the back end");
  }
}

int64_t OmraSession::omraSessionMode() const { return rawValue(impl_->mode); }

bool OmraSession::isLocalizationMode() const { return impl_->sessionState->isLocalizationMode(); }

std::optional<std::string> OmraSession::currentSessionUUID() const {
  return impl_->sessionState->currentSessionIdentifier();
}

std::optional<std::string> OmraSession::mappingUUID() const {
  std::shared_ptr<DataManager> manager = impl_->sessionState->dataManager();
  return manager ? manager->mapUUID() : std::nullopt;
}

std::optional<std::string> OmraSession::localizationUUID() const {
  std::shared_ptr<DataManager> manager = impl_->sessionState->dataManager();
  return manager ? manager->localizationSessionUUID() : std::nullopt;
}

const std::string& OmraSession::mapID() const { return impl_->mapID; }
const std::string& OmraSession::userID() const { return impl_->userID; }
const std::string& OmraSession::appID() const { return impl_->appID; }

float OmraSession::fpsInput() const { return impl_->counters->fpsInput.load(); }
bool OmraSession::updateInProgress() const {
  return impl_->counters->updateInProgress.load(std::memory_order_acquire);
}

float OmraSession::fpsDataProcess1() const { return impl_->counters->fpsDataProcess1.load(); }
float OmraSession::fpsDataProcess2() const { return impl_->counters->fpsDataProcess2.load(); }
void OmraSession::setFpsInput(float value) { impl_->counters->fpsInput = value; }
void OmraSession::setFpsDataProcess1(float value) { impl_->counters->fpsDataProcess1 = value; }
void OmraSession::setFpsDataProcess2(float value) { impl_->counters->fpsDataProcess2 = value; }

int64_t OmraSession::sessionsCreated() { return gSessionsCreated.load(); }

}  // namespace omra
