// Drives one OmraSession over one recording against a back end, as a host on a phone would: open,
// feed frames and plane events, place assets, collect what the kit hands back. Used by `omra demo`,
// `omra replay`, the end-to-end test and benchmark. driveSession blocks the calling thread; the
// services it is given are shared with the kit's threads.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/map_asset.h"
#include "omrakit/map_status.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "omrakit/session_mode.h"
#include "sim/recording.h"

namespace omra::tools {

// The platform services every session of a run shares: one dispatcher and HTTP client, and the
// record store the back end reads. Destroy only after the sessions made with it. Members go in
// reverse order: the HTTP client before the dispatcher it posts to.
struct KitServices {
  std::shared_ptr<Dispatcher> dispatcher;
  std::shared_ptr<HttpClient> http;
  std::string backendUrl;  // "http://HOST:PORT"
  // Destroyed after the store, with the last copy: stops the HTTP client while the dispatcher
  // still runs.
  std::shared_ptr<void> stopHttpFirst;
  std::shared_ptr<RecordStore> records;
};

// httpIdleSeconds bounds a request that gets no answer (an unreachable back end).
KitServices makeKitServices(std::shared_ptr<RecordStore> records, std::string backendUrl,
                            double httpIdleSeconds = 10);

// As a device runs: the kit's records go to the back end's ingest route at backendUrl (stage
// "/prod"), through a durable outbox at outboxPath. Null with *error set when the outbox cannot be
// opened.
std::optional<KitServices> makeDeviceKitServices(std::string backendUrl,
                                                 const std::string& outboxPath,
                                                 double httpIdleSeconds, std::string* error);

// One assets-found callback as the host saw it.
struct AssetsArrival {
  double scanSeconds = 0;            // recording time of the newest frame handed over by then
  double wallSeconds = 0;            // since the session opened
  std::string localizer;             // which localizer's transform placed them ("" when unknown)
  std::optional<double> matchValue;  // that transform's match value, when known
  std::vector<MapAsset> assets;
};

struct DriveOptions {
  SessionMode mode = SessionMode::mapping;
  std::string userID = "omra-demo-user";
  std::string mapID = "omra-demo-map";
  std::string developerKey = "omra-demo-developer-key";
  double speed = 1;                // feed pace relative to the recording (0: as fast as possible)
  double openTimeoutSeconds = 15;  // for the back end's answer to the opening request
  // Mapping: stored once the session is initialized; storing is awaited before returning.
  std::vector<MapAsset> placements;
  // Localization: stop feeding this many scan seconds after the first assets (negative: never).
  double settleScanSeconds = -1;
  // Localization: after the feed, wait this long for assets when none came yet.
  double waitAfterFeedSeconds = 5;
  // Progress: (frames fed, frames in the recording, the kit's scan progress count). Called on the
  // feeding thread.
  std::function<void(size_t, size_t, int64_t)> progress;
  // Every kit log line (verbose output); must be thread-safe.
  std::function<void(std::string_view)> kitLog;
};

struct DriveResult {
  std::optional<MapStatus> status;  // none: no answer within openTimeoutSeconds
  std::optional<std::string> sessionUUID;
  std::optional<std::string> mapUUID;
  size_t framesFed = 0;
  size_t framesTotal = 0;
  double scanSeconds = 0;                // recording time covered by the frames fed
  std::optional<bool> placementsStored;  // mapping with placements: the back end's answer
  std::vector<AssetsArrival> arrivals;
  int64_t scanProgress = 0;
  std::vector<std::string> kitErrors;  // error-level lines the kit logged

  bool opened() const { return status && *status == MapStatus::initialized; }
};

// Runs the whole session and disposes it. Never throws.
DriveResult driveSession(const KitServices& services,
                         std::shared_ptr<const sim::Recording> recording,
                         const DriveOptions& options);

// Readable name of a status ("initialized", "network error", ...).
std::string statusText(MapStatus status);

}  // namespace omra::tools
