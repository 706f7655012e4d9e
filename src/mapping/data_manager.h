// The cloud-side identity of a running session and the relocalization requests.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "omrakit/map_status.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/platform/location_source.h"
#include "omrakit/platform/logger.h"
#include "omrakit/session_mode.h"
#include "src/mapping/location_manager.h"

namespace omra {

class CloudAPI;

// What the session facade tells the data manager about the host.
struct SessionIdentity {
  std::string appID;
  std::string userID;
  std::string mapID;
};

// Opens the session on the back end, keeps its identifiers, sends the two compute triggers and
// polls for best transforms. Shared (shared_ptr) by the session state and by in-flight HTTP
// completions, which keep it alive. Every method is thread-safe: the identifiers are written on
// the HTTP reply queue (the main queue) and read from the update, trigger and polling queues.
class DataManager : public std::enable_shared_from_this<DataManager> {
 public:
  using StatusCallback = std::function<void(MapStatus)>;
  using TransformRetrievedHandler = std::function<void(
      const std::string& algorithm, const std::string& transform, float matchValue)>;
  using AssetsCallback = std::function<void(const Json&)>;

  static constexpr const char* DATA_VERSION = "0.3";

  struct Deps {
    std::shared_ptr<CloudAPI> cloudAPI;  // also gives the endpoints and the HTTP client
    std::shared_ptr<Logger> logger;
    // Not owned: the host keeps the Env's dispatcher alive longer than its sessions, and a kit
    // object released on one of the dispatcher's threads must not be the one to destroy it.
    Dispatcher* dispatcher = nullptr;
    std::shared_ptr<LocationSource> location;  // null: no location
  };

  // mode decides which identifier is the current session's (the facade's mode).
  static std::shared_ptr<DataManager> create(
      Deps deps, SessionMode mode, SessionIdentity identity,
      std::chrono::system_clock::time_point creationTime = std::chrono::system_clock::now());

  // Opens a mapping session ("/create_map"); the status arrives through statusCallback on the
  // HTTP reply queue.
  void setMappingMode(StatusCallback statusCallback);
  // Opens a localization session against the host's map and preloads the map's assets.
  void setLocalizationMode(StatusCallback statusCallback);

  void triggerTransformCompute(const std::string& mappingUUID, const std::string& localizationUUID,
                               bool isSeeded);
  void triggerImageMatchTrigger(const std::string& localizationUUID);
  // Three best-transform requests for the current session, one per localizer; nothing before
  // the session identifier is known.
  void getLatestTransform();
  // Fetches the assets stored on mapUUID into preloadedAssetJSON, then calls callback with them.
  void retrieveAssets(AssetsCallback callback);

  // The text parsed as a JSON object, or none (no error is reported).
  static std::optional<Json> convertToDictionary(std::string_view text);

  // The best-transform URL for one session and localizer.
  std::string bestTransformUrl(const std::string& sessionId, const std::string& algorithm) const;

  void setTransformRetrievedHandler(TransformRetrievedHandler handler);

  std::optional<std::string> mapUUID() const;
  std::optional<std::string> localizationSessionUUID() const;
  // The identifier of the current mode's session.
  std::optional<std::string> currentSessionUUID() const;
  std::optional<Json> preloadedAssetJSON() const;
  SessionMode sessionMode() const { return mode_; }
  const SessionIdentity& identity() const { return identity_; }
  const std::shared_ptr<CloudAPI>& cloudAPI() const { return deps_.cloudAPI; }
  const std::shared_ptr<LocationManager>& locManager() const { return locManager_; }
  const std::string& dataDirectory() const { return dataDirectory_; }

 private:
  DataManager(Deps deps, SessionMode mode, SessionIdentity identity,
              std::chrono::system_clock::time_point creationTime);
  void openSession(bool localization, StatusCallback statusCallback);
  void handleMappingReply(const Json& reply, const StatusCallback& statusCallback);
  void handleLocalizationReply(const Json& reply, const StatusCallback& statusCallback);
  void getLatestTransform(const std::string& sessionId, const std::string& algorithm);
  void handleTransformReply(const HttpResponse& response);
  static bool useBeta();

  Deps deps_;
  const SessionMode mode_;
  const SessionIdentity identity_;

  const std::string dataRootDirectory_ = "omra";
  const std::string dataDirectory_;
  // Kept for the image saving side, which has no body in this version.
  std::shared_ptr<SerialQueue> imageSaveQueue_;
  std::shared_ptr<SerialQueue> relocalizationQueue_;
  std::shared_ptr<LocationManager> locManager_;

  mutable std::mutex mutex_;
  bool dataSaved_ = false;
  bool saveImageLoopStarted_ = false;
  std::optional<bool> stopImageLoop_;
  std::optional<std::string> localizationSessionUUID_;
  std::optional<std::string> mapUUID_;
  std::optional<float> latestConfidence_;
  std::vector<float> latestTranslation_;
  std::vector<float> latestRotation_;
  std::optional<float> latestRevealedConfidence_;
  std::optional<Json> preloadedAssetJSON_;
  TransformRetrievedHandler transformRetrievedHandler_;
};

}  // namespace omra
