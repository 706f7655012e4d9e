// OmraSession: the one object a host creates to give its AR scene a persistent, shareable map.
//
// Ownership. The host owns the session (a plain object; not copyable, not movable). It keeps a
// copy of the Env it is given; the Env's dispatcher must outlive the session and every callback it
// runs. Destroying the session disposes it (see dispose()); work already in flight (an HTTP reply,
// a record save) still completes afterwards on the kit's queues without touching the host object.
//
// Driving it. After construction the host hands the session every camera frame (update) and every
// plane-anchor event (planeDetected / planeUpdated / planeRemoved, or the sessionDidAdd /
// sessionDidUpdate / sessionDidRemove lists). Frames are dropped, never queued, until the back end
// has opened the map or localization session (status `initialized`) and while an earlier frame is
// still being recorded, so update() never waits on the network or on storage.
//
// Threading. Every method is thread-safe and may be called from any thread; the host normally
// calls update() and the anchor methods from its AR session's delegate thread. Callbacks run:
//   - statusCallback:        on the main queue (Env::dispatcher->mainQueue()).
//   - assetsFoundCallback:   on the main queue (it follows an HTTP reply).
//   - storePlacement's and listNearbyMaps' callbacks: on the main queue.
//   - progressCallback:      on the thread that delivered the event that made progress: the
//                            host's thread for plane events, the kit's detection thread for
//                            objects.
//   - objectDetectedCallback: on the kit's detection thread.
// SessionOptions::callbacksOnMainQueue moves the last two onto the main queue as well.
// No callback runs once the destructor has returned, even for replies still in flight; the
// destructor waits for a callback running on another thread. A callback must not destroy the
// session that called it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/ar_types.h"
#include "omrakit/config.h"
#include "omrakit/detected_object.h"
#include "omrakit/map.h"
#include "omrakit/map_asset.h"
#include "omrakit/map_status.h"
#include "omrakit/multiplayer.h"
#include "omrakit/platform/env.h"
#include "omrakit/session_mode.h"
#include "omrakit/settings.h"

namespace omra {

// What a session needs beyond the arguments a phone host passes.
struct SessionOptions {
  // The AR platform version the host runs (plane alignment and boundary vertices need 11.3).
  ArPlatformVersion platformVersion;
  // The back end's hosts; none: the process-wide endpoints (Urls::configure / configuration).
  std::optional<EndpointHosts> endpoints;
  // Deliver progress and detected objects on the main queue too (the C API's promise), instead of
  // on the thread of the event that produced them.
  bool callbacksOnMainQueue = false;
};

class OmraSession {
 public:
  using AssetsFoundCallback = std::function<void(std::vector<MapAsset>)>;
  using ProgressCallback = std::function<void(int64_t)>;
  using StatusCallback = std::function<void(MapStatus)>;
  using ObjectDetectedCallback = std::function<void(std::vector<DetectedObject>)>;
  using StoreCallback = std::function<void(bool)>;
  using MapsFoundCallback = std::function<void(std::vector<Map>)>;

  // The type-level settings, shared by every session of the process (atomics: read and write
  // them from any thread). They are the same objects as OmraSettings'.
  static inline std::atomic<int64_t>& TIMEOUT_THRESHOLD = OmraSettings::TIMEOUT_THRESHOLD;
  static inline std::atomic<bool>& USE_BETA_ALGO = OmraSettings::USE_BETA_ALGO;
  static inline std::atomic<int64_t>& RETRIEVE_ASSETS_INTERVAL =
      OmraSettings::RETRIEVE_ASSETS_INTERVAL;
  static inline std::atomic<bool>& BUILD_HEAVY_MAP = OmraSettings::BUILD_HEAVY_MAP;

  // Starts the session: opens a new map (mapping) or a localization session against mapID on the
  // back end; the outcome arrives through statusCallback. env needs dispatcher, http, logger,
  // device and records; metrics, location and detector may be null (no metrics, no location, no
  // scene understanding). A device without a bundle identifier is a fatal error. A bundle, user or
  // map identifier that is not valid UTF-8 is logged and the session never opens (status
  // networkError). Any callback may be empty.
  OmraSession(Env env, SessionMode mapMode, std::string userID, std::string mapID,
              const std::string& developerKey, double screenHeight, double screenWidth,
              AssetsFoundCallback assetsFoundCallback, ProgressCallback progressCallback,
              StatusCallback statusCallback, ObjectDetectedCallback objectDetectedCallback,
              SessionOptions options = {});
  OmraSession() = delete;
  OmraSession(const OmraSession&) = delete;
  OmraSession& operator=(const OmraSession&) = delete;
  // Disposes the session (if the host has not), stops every host callback and lets go of it.
  ~OmraSession();

  // One camera frame. Never waits on network or storage. Thread-safe.
  void update(const ArFrame& frame);

  // A plane the AR session added: counts scan progress and records the plane. Thread-safe.
  void planeDetected(const ArPlaneAnchor& anchor);
  // A plane that changed: records it again. Thread-safe.
  void planeUpdated(const ArPlaneAnchor& anchor);
  // An anchor the AR session removed; only plane anchors are recorded. Thread-safe.
  void planeRemoved(const AnyArAnchor& anchor);

  // The AR session's anchor lists; anchors that are not planes are ignored. Thread-safe.
  void sessionDidAdd(const std::vector<AnyArAnchor>& anchors);
  void sessionDidUpdate(const std::vector<AnyArAnchor>& anchors);
  void sessionDidRemove(const std::vector<AnyArAnchor>& anchors);

  // Stores the host's asset placements against the map. Returns whether the request was sent
  // (false before `initialized`, in localization mode before assets were localized, and for an
  // asset identifier that is not valid UTF-8 or a position that is not finite or lies beyond
  // kMaxAssetCoordinateMetres); callback later tells whether the back
  // end stored them, on the main queue. Thread-safe.
  bool storePlacement(const std::vector<MapAsset>& assets, StoreCallback callback);

  // Lists maps of this app near a position (degrees; the deltas are the box's full extent).
  // Returns false before the session's data manager exists; callback on the main queue.
  // Thread-safe.
  bool listNearbyMaps(const std::optional<std::string>& userID, double longitude, double latitude,
                      double longitudeDelta, double latitudeDelta,
                      MapsFoundCallback mapsFoundCallback);

  // The transform that carries a remote device's coordinates into this device's. Pure.
  static UnityMultiplayerTransform unityMultiplayerSync(
      const Vector3& localA, const Vector3& localB, const Vector3& remoteA, const Vector3& remoteB,
      const std::optional<Quaternion>& rotationRemote);

  // Ends the session's periodic work (asset polling, the fps meter) and writes out batched
  // records. Final: a new session object is needed for a new run. Thread-safe; idempotent.
  void dispose();

  // Read-only facts. Thread-safe.
  int64_t omraSessionMode() const;  // the mode's raw value
  bool isLocalizationMode() const;
  std::optional<std::string> currentSessionUUID() const;
  std::optional<std::string> mappingUUID() const;
  std::optional<std::string> localizationUUID() const;
  const std::string& mapID() const;
  const std::string& userID() const;
  const std::string& appID() const;

  // Frames per second in the last measuring second: handed to update(), recorded, and processed
  // by scene understanding. Readable and writable by the host. Thread-safe.
  float fpsInput() const;
  float fpsDataProcess1() const;
  float fpsDataProcess2() const;
  void setFpsInput(float value);
  void setFpsDataProcess1(float value);
  void setFpsDataProcess2(float value);

  // True from the moment update() accepts a frame for recording until that frame is recorded;
  // frames handed in meanwhile are not recorded. Thread-safe.
  bool updateInProgress() const;

  // How many sessions this process has created.
  static int64_t sessionsCreated();

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace omra
