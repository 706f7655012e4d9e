#include "src/mapping/persistence.h"

#include <chrono>
#include <cmath>
#include <limits>
#include <utility>

#include "omrakit/detected_object.h"
#include "omrakit/settings.h"
#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/cloud_api.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/metrics.h"
#include "src/cloud/point_cloud_model_queue.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/foundation/fatal.h"
#include "src/foundation/json_reader.h"
#include "src/foundation/number_format.h"
#include "src/mapping/data_manager.h"
#include "src/mapping/transform_answer.h"
#include "src/scene/activation.h"
#include "src/session/session_state.h"

namespace omra {
namespace {

constexpr float kMinObjectConfidence = 0.5f;
constexpr float kDistantObjectThreshold = 0.6f;
constexpr size_t kMaxDisperateObjects = 4;
constexpr float kMinSuMatchValue = 0.55f;
constexpr int64_t kMaxCountedVerticalPlanes = 2;
constexpr char kNotInitializedMessage[] =
    "OmraSession has not yet been fully initialized. Wait for statusCallback with .initialized "
    "before storing any assets. (mode - ";

double secondsSince(std::chrono::system_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::system_clock::now() - start).count();
}

// A number in the stored placements, or none when absent or not a number.
std::optional<float> numberAt(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return std::nullopt;
  const double value = it->get<double>();
  // Checked before the narrowing: a stored 1e300 is no position and no float.
  if (!isPlausibleCoordinate(value)) return std::nullopt;
  return static_cast<float>(value);
}

SessionIdSource sessionIdSource(const std::shared_ptr<SessionState>& state) {
  return [state] { return state->currentSessionIdentifier(); };
}

}  // namespace

std::shared_ptr<Persistence> Persistence::create(std::shared_ptr<SessionState> sessionState,
                                                 ScanProgress::ProgressCallback progressCallback,
                                                 Deps deps) {
  std::shared_ptr<Persistence> persistence(new Persistence(sessionState, std::move(deps)));
  persistence->scanProgress_ =
      std::make_unique<ScanProgress>(std::move(sessionState), std::move(progressCallback));
  persistence->registerTriggers();
  return persistence;
}

Persistence::Persistence(std::shared_ptr<SessionState> sessionState, Deps deps)
    : sessionState_(std::move(sessionState)),
      deps_(std::move(deps)),
      writer_(deps_.records, deps_.logger),
      reloadAssetQueue_(deps_.dispatcher->makeSerialQueue("reloadAssetQueue")),
      cameraPathModelQueue_(
          std::make_unique<CameraPathModelQueue>(sessionIdSource(sessionState_), writer_)),
      arFeatureModelQueue_(
          std::make_unique<PointCloudModelQueue>(sessionIdSource(sessionState_), writer_)) {}

Persistence::~Persistence() { flush(); }

void Persistence::registerTriggers() {
  // The triggers hold the Persistence weakly: a strong hold would be a cycle through
  // scanProgress_ and the object would never be destroyed (nor its queues flushed).
  std::weak_ptr<Persistence> weak = weak_from_this();
  scanProgress_->registerTrigger(
      [weak] {
        if (auto self = weak.lock()) self->triggerImageMatchingCompute();
      },
      1);
  scanProgress_->registerTrigger(
      [weak] {
        if (auto self = weak.lock()) self->triggerTransformCompute();
      },
      4);
}

int64_t Persistence::advanceFrameCounter() {
  int64_t previous = frameCounter_.load();
  do {
    OMRA_CHECK(previous < std::numeric_limits<int64_t>::max(), "frame counter overflow");
  } while (!frameCounter_.compare_exchange_weak(previous, previous + 1));
  return previous + 1;
}

bool Persistence::isLocalizationSession() const {
  return sessionState_->sessionMode() != SessionMode::mapping;
}

bool Persistence::recordingPossible(std::shared_ptr<DataManager>* dataManager,
                                    std::string* sessionId) const {
  std::shared_ptr<DataManager> manager = sessionState_->dataManager();
  if (!manager) return false;
  std::optional<std::string> id = manager->currentSessionUUID();
  if (!id) return false;
  if (dataManager) *dataManager = std::move(manager);
  if (sessionId) *sessionId = std::move(*id);
  return true;
}

void Persistence::uploadARKitInfo(const ArFrame& frame) {
  const int64_t frameId = frameCounter_.load();
  std::lock_guard lock(queuesMutex_);
  cameraPathModelQueue_->add(frame.camera.transform, frameId);
  if (OmraSettings::BUILD_HEAVY_MAP.load() && frame.rawFeaturePoints) {
    arFeatureModelQueue_->add(*frame.rawFeaturePoints, frameId);
  }
}

void Persistence::planeDetected(const ArPlaneAnchor& anchor) {
  if (deps_.platformVersion.atLeast(11, 3) && anchor.alignment == PlaneAlignment::kVertical) {
    bool count = false;
    {
      std::lock_guard lock(planeMutex_);
      if (verticalPlaneCount_ < kMaxCountedVerticalPlanes) {
        ++verticalPlaneCount_;
        count = true;
      }
    }
    if (count) scanProgress_->increment();
  }
  writePlane(anchor);
}

std::string Persistence::vertexString(const std::vector<Float3>& vertices) {
  if (vertices.empty()) return "-";
  std::string text;
  for (size_t i = 0; i < vertices.size(); ++i) {
    if (i > 0) text += '|';
    appendFloatShortest(text, vertices[i].x);
    text += ',';
    appendFloatShortest(text, vertices[i].y);
    text += ',';
    appendFloatShortest(text, vertices[i].z);
  }
  return text;
}

std::string Persistence::transformString(const Matrix4x4& transform) {
  std::string text;
  for (int column = 0; column < 4; ++column) {
    for (int row = 0; row < 4; ++row) {
      if (!text.empty()) text += ',';
      appendFloatShortest(text, transform.at(row, column));
    }
  }
  return text;
}

void Persistence::writePlane(const ArPlaneAnchor& anchor) {
  std::string sessionId;
  if (!recordingPossible(nullptr, &sessionId)) return;

  std::vector<Float3> vertices;
  if (deps_.platformVersion.atLeast(11, 3)) {
    if (anchor.boundaryVertices) vertices = *anchor.boundaryVertices;
  } else {
    const Float3 c = anchor.center;
    vertices = {{c.x + 0.001f, c.y, c.z}, {c.x - 0.001f, c.y, c.z}, {c.x, c.y, c.z + 0.001f}};
  }
  const bool horizontal = anchor.alignment == PlaneAlignment::kHorizontal;
  if (horizontal) {
    bool first = false;
    {
      std::lock_guard lock(planeMutex_);
      first = !seenHorizontalPlane_;
      seenHorizontalPlane_ = true;
    }
    if (first) scanProgress_->increment();
  }
  DetectedPlaneModel model(sessionId, frameCounter_.load(), anchor.identifier,
                           horizontal ? "horizontal" : "vertical", vertexString(vertices),
                           isLocalizationSession(), transformString(anchor.transform), false);
  writer_.save(model);
}

void Persistence::planeRemoved(const ArPlaneAnchor& anchor) {
  std::string sessionId;
  if (!recordingPossible(nullptr, &sessionId)) return;
  const bool horizontal = anchor.alignment == PlaneAlignment::kHorizontal;
  DetectedPlaneModel model(sessionId, frameCounter_.load(), anchor.identifier,
                           horizontal ? "horizontal" : "vertical", "-", isLocalizationSession(),
                           "-", true);
  writer_.save(model);
}

bool Persistence::isNewObjectDistant(const Vector3& position, const std::vector<Vector3>& seen,
                                     float threshold) {
  for (const Vector3& q : seen) {
    const float dx = q.x - position.x;
    const float dy = q.y - position.y;
    const float dz = q.z - position.z;
    if (std::sqrt(dx * dx + dy * dy + dz * dz) < threshold) return false;
  }
  return true;
}

void Persistence::objectsFound(const std::vector<DetectedObject>& objects) {
  std::string sessionId;
  if (!recordingPossible(nullptr, &sessionId)) return;
  const bool localization = isLocalizationSession();
  for (const DetectedObject& object : objects) {
    if (object.confidence() < kMinObjectConfidence) continue;
    if (object.name() == "person") continue;  // people are never recorded
    const Vector3 center(object.center());
    bool counts = false;
    {
      std::lock_guard lock(objectMutex_);
      // Decided before the label joins the list: the first object always counts.
      const bool onlyThisLabelSoFar =
          uniqueLabelsSeen_.size() == 1 && uniqueLabelsSeen_.front() == object.name();
      const bool distant =
          isNewObjectDistant(center, disperateObjectsSeen_, kDistantObjectThreshold);
      if (!onlyThisLabelSoFar && distant) {
        counts = true;
        disperateObjectsSeen_.push_back(center);
        if (disperateObjectsSeen_.size() > kMaxDisperateObjects) {
          disperateObjectsSeen_.erase(disperateObjectsSeen_.begin());
        }
      }
      bool known = false;
      for (const std::string& label : uniqueLabelsSeen_) known = known || label == object.name();
      if (!known) uniqueLabelsSeen_.push_back(object.name());
    }
    if (counts) scanProgress_->increment();
    SceneUnderstandingModel model(sessionId, frameCounter_.load(), center.x, center.y, center.z,
                                  object.name(), object.confidence(), object.id(), localization);
    writer_.save(model);
  }
}

void Persistence::uploadImageActivation(const Activation& activation) {
  std::string sessionId;
  if (!recordingPossible(nullptr, &sessionId)) return;
  ImageFeaturesModel model(sessionId, frameCounter_.load(), activation.getFullVector());
  writer_.save(model);
}

void Persistence::flush() {
  deps_.logger->print("Flushing all data..");
  // Frames are queued only once the session has an identifier; without one there is nothing to
  // write (and a record without its key would only fail).
  if (!sessionState_->currentSessionIdentifier()) return;
  std::lock_guard lock(queuesMutex_);
  cameraPathModelQueue_->save();
  arFeatureModelQueue_->save();
}

void Persistence::triggerTransformCompute() { triggerCompute(true); }

void Persistence::triggerImageMatchingCompute() { triggerCompute(false); }

void Persistence::triggerCompute(bool transform) {
  if (!isLocalizationSession()) {
    deps_.logger->print("mapping mode, can't trigger transform compute");
    return;
  }
  std::shared_ptr<SessionState> state = sessionState_;
  std::shared_ptr<Logger> logger = deps_.logger;
  deps_.dispatcher->background([state, logger, transform] {
    std::shared_ptr<DataManager> manager = state->dataManager();
    if (!manager) return;
    std::optional<std::string> localization = manager->localizationSessionUUID();
    std::optional<std::string> map = manager->mapUUID();
    // Identifiers come from the back end's answer; a missing one is a server fault, not ours.
    if (!localization || (transform && !map)) {
      logger->systemLog(LogLevel::kError,
                        "Cannot request a transform computation: the back end gave no session "
                        "or map identifier");
      return;
    }
    if (transform) {
      manager->triggerTransformCompute(*map, *localization, false);
    } else {
      manager->triggerImageMatchTrigger(*localization);
    }
  });
}

std::optional<float> Persistence::bestImageMatcherMatchValue() const {
  std::lock_guard lock(bestMutex_);
  return bestImageMatcherMatchValue_;
}

std::optional<float> Persistence::bestSULocalizerMatchValue() const {
  std::lock_guard lock(bestMutex_);
  return bestSULocalizerMatchValue_;
}

std::vector<Vector3> Persistence::disperateObjectsSeen() const {
  std::lock_guard lock(objectMutex_);
  return disperateObjectsSeen_;
}

std::vector<std::string> Persistence::uniqueLabelsSeen() const {
  std::lock_guard lock(objectMutex_);
  return uniqueLabelsSeen_;
}

void Persistence::transformRetrieved(const std::string& algorithm, const std::string& transform,
                                     float matchValue) {
  std::lock_guard serial(transformMutex_);
  const std::optional<float> bestImage = bestImageMatcherMatchValue();
  const std::optional<float> bestSU = bestSULocalizerMatchValue();
  const bool imageMatcher = algorithm == "full_image_matcher";
  if (imageMatcher) {
    if (bestImage && *bestImage >= matchValue) return;
    deps_.logger->print("Received image matcher result " + algorithm + ": " +
                        formatFloatShortest(matchValue));
  } else {
    if (matchValue < kMinSuMatchValue || (bestSU && *bestSU >= matchValue)) return;
    deps_.logger->print("Received SU result " + algorithm + ": " + formatFloatShortest(matchValue));
  }
  if (!parseTransformText(transform)) {
    deps_.logger->systemLog(
        LogLevel::kError,
        "Dropped a best-transform answer with an unreadable or implausible transform: " +
            dumpJson(Json(transform)));
    return;
  }
  std::vector<MapAsset> assets = convertAssetsToLocalFrame(transform);

  int64_t& returnCount =
      imageMatcher ? transformReturnCountFullImageMatch_ : transformReturnCountSU_;
  if (returnCount == 0) {
    std::optional<std::chrono::system_clock::time_point> ready = sessionState_->readyTime();
    OMRA_CHECK(ready.has_value(), "relocalization result before the session was ready");
    sessionState_->cloudApi()->postMetric(
        imageMatcher ? kMetricRelocalizationTimeFullImageMatcher : kMetricRelocalizationTimeSU,
        secondsSince(*ready), true, true);
  }
  OMRA_CHECK(returnCount < std::numeric_limits<int64_t>::max(), "transform count overflow");
  ++returnCount;

  const AssetsFoundCallback& assetsFound = sessionState_->assetsFoundCallback();
  if (imageMatcher) {
    // Once a scene-understanding result is accepted, image-matcher results no longer move the
    // host's assets.
    if (!bestSU && assetsFound) assetsFound(assets);
    {
      std::lock_guard lock(bestMutex_);
      bestImageMatcherMatchValue_ = matchValue;
    }
    // An accepted image-matcher result seeds the scene-understanding localizer.
    if (std::shared_ptr<DataManager> manager = sessionState_->dataManager()) {
      std::optional<std::string> map = manager->mapUUID();
      std::optional<std::string> localization = manager->localizationSessionUUID();
      if (map && localization) {
        manager->triggerTransformCompute(*map, *localization, true);
      } else {
        deps_.logger->systemLog(LogLevel::kError,
                                "Cannot request a seeded transform: the back end gave no session "
                                "or map identifier");
      }
    }
  } else {
    if (assetsFound) assetsFound(assets);
    std::lock_guard lock(bestMutex_);
    bestSULocalizerMatchValue_ = matchValue;
  }
}

std::vector<MapAsset> Persistence::convertAssetsToLocalFrame(const std::string& transform) {
  std::vector<MapAsset> assets;
  std::optional<YawTransform> parsed = parseTransformText(transform);
  if (!parsed) {
    deps_.logger->systemLog(LogLevel::kError,
                            "Transform text with fewer than four numbers: " + transform);
    return assets;
  }
  std::shared_ptr<DataManager> manager = sessionState_->dataManager();
  if (!manager) return assets;
  std::optional<Json> preloaded = manager->preloadedAssetJSON();
  if (!preloaded || !preloaded->is_object()) return assets;
  auto placements = preloaded->find("placements");
  if (placements == preloaded->end() || !placements->is_array()) return assets;

  for (const Json& element : *placements) {
    std::optional<float> x, y, z, ori;
    std::optional<std::string> id;
    if (element.is_object()) {
      auto placement = element.find("placement");
      if (placement != element.end() && placement->is_object()) {
        x = numberAt(*placement, "x");
        y = numberAt(*placement, "y");
        z = numberAt(*placement, "z");
        ori = numberAt(*placement, "ori");
      }
      auto asset = element.find("asset");
      if (asset != element.end() && asset->is_object()) {
        auto idIt = asset->find("id");
        if (idIt != asset->end() && idIt->is_string()) id = idIt->get<std::string>();
      }
    }
    if (!x || !y || !z || !ori || !id) {
      deps_.logger->systemLog(
          LogLevel::kError,
          "Skipped a stored placement with missing or implausible fields: " + dumpJson(element));
      continue;
    }
    const Float3 moved = applyYawTransform(*parsed, {*x, *y, *z});
    if (!isPlausiblePosition(Vector3(moved))) {
      deps_.logger->systemLog(LogLevel::kError,
                              "Skipped a placement the transform moves out of range: " + *id);
      continue;
    }
    const float distance = std::sqrt(moved.x * moved.x + moved.y * moved.y + moved.z * moved.z);
    deps_.logger->print("Relocalized asset new position (" + formatFloatShortest(moved.x) + ", " +
                        formatFloatShortest(moved.y) + ", " + formatFloatShortest(moved.z) +
                        ") - dist: " + formatFloatShortest(distance));
    MapAsset asset(*id, Vector3(moved), *ori + parsed->theta);
    asset.confidence = 0.5f;
    asset.matrix = "";
    assets.push_back(std::move(asset));
  }
  return assets;
}

void Persistence::queryAssets(int64_t initialRestartCount) {
  if (sessionState_->restartCount() != initialRestartCount) return;
  // Held weakly: the facade owns the Persistence and disposes it when it is dropped, so the loop
  // would end at its next turn anyway; this way it does not delay the flush on destruction.
  std::weak_ptr<Persistence> weak = weak_from_this();
  const auto interval = std::chrono::seconds(OmraSettings::RETRIEVE_ASSETS_INTERVAL.load());
  reloadAssetQueue_->asyncAfter(interval, [weak, initialRestartCount] {
    std::shared_ptr<Persistence> self = weak.lock();
    // A turn that finds the session restarted ends the loop at once.
    if (!self || self->sessionState_->restartCount() != initialRestartCount) return;
    if (std::shared_ptr<DataManager> manager = self->sessionState_->dataManager()) {
      manager->getLatestTransform();
    }
    self->queryAssets(initialRestartCount);
  });
}

bool Persistence::storePlacement(std::vector<MapAsset> assets, StoreCallback callback) {
  std::shared_ptr<CloudAPI> cloud = sessionState_->cloudApi();
  cloud->postMetric(kMetricAssetSaved, std::nullopt, true, true);
  for (const MapAsset& asset : assets) {
    if (!isValidUtf8(asset.assetID)) {
      deps_.logger->systemLog(LogLevel::kError,
                              "Cannot store assets: an asset identifier is not valid UTF-8");
      return false;
    }
    if (!isPlausiblePosition(asset.position) || !std::isfinite(asset.orientation)) {
      deps_.logger->systemLog(LogLevel::kError, "Cannot store asset " + asset.assetID +
                                                    ": its position is not finite or lies beyond " +
                                                    "the map's range");
      return false;
    }
  }
  if (isLocalizationSession()) {
    std::optional<std::vector<float>> translation;
    std::optional<float> confidence;
    {
      std::lock_guard lock(resolvedMutex_);
      translation = resolvedTranslation_;
      confidence = resolvedConfidence_;
    }
    if (!translation || !confidence || translation->size() < 3) {
      deps_.logger->systemLog(
          LogLevel::kInfo,
          "Cannot store new assets in localization mode until previous assets have been "
          "localized");
      return false;
    }
    for (MapAsset& asset : assets) {
      asset = MapAsset(
          asset.assetID,
          Vector3((*translation)[0] + asset.position.x, (*translation)[1] + asset.position.y,
                  (*translation)[2] + asset.position.z),
          asset.orientation);
    }
  }
  std::shared_ptr<DataManager> manager = sessionState_->dataManager();
  std::optional<std::string> map = manager ? manager->mapUUID() : std::nullopt;
  if (!map) {
    deps_.logger->systemLog(
        LogLevel::kInfo,
        kNotInitializedMessage + std::to_string(rawValue(sessionState_->sessionMode())) + ")");
    return false;
  }
  cloud->placeAssetOnMap(*map, assets, [callback = std::move(callback)](Json reply) {
    if (callback) callback(reply.is_object() && reply.contains("placement_id"));
  });
  return true;
}

}  // namespace omra
