#include <cstdio>
#include <memory>

#include "server/server.h"
#include "sim/recording_io.h"
#include "src/cloud/record_tables.h"
#include "src/platform/store/record_store_factory.h"
#include "tools/commands.h"
#include "tools/runner/session_driver.h"

namespace omra::tools {

int runReplay(const ReplayOptions& options) {
  // The whole file is checked before anything is sent: a damaged recording never half-replays.
  sim::RecordingReadResult r = sim::readRecordingFile(options.path);
  if (!r.recording) {
    std::fprintf(stderr, "omra replay: %s: %s\n", options.path.c_str(), r.error.c_str());
    return 1;
  }
  auto recording = std::make_shared<const sim::Recording>(std::move(*r.recording));
  std::string mode = options.mode;
  if (mode.empty()) mode = recording->header.role == "localization" ? "localization" : "mapping";

  const bool inProcess = options.server.empty();
  std::string storeSpec = options.store;
  if (storeSpec.empty()) storeSpec = inProcess ? "memory" : "sqlite:omra-server.db";
  std::string error;
  std::shared_ptr<RecordStore> store = makeRecordStore(storeSpec, {}, nullptr, &error);
  if (!store) {
    std::fprintf(stderr, "omra replay: cannot open the store %s: %s\n", storeSpec.c_str(),
                 error.c_str());
    return 1;
  }
  if (std::optional<StoreError> e = ensureRecordTables(*store)) {
    std::fprintf(stderr, "omra replay: cannot create the record tables: %s\n", e->message.c_str());
    return 1;
  }
  std::unique_ptr<server::Server> server;
  std::string url = options.server;
  if (inProcess) {
    server::ServerOptions s;
    s.store = store;
    s.logRequests = false;
    s.log = [](std::string_view) {};
    server = std::make_unique<server::Server>(std::move(s));
    if (!server->start(&error)) {
      std::fprintf(stderr, "omra replay: cannot start omra-server: %s\n", error.c_str());
      return 1;
    }
    url = server->baseUrl();
  }

  std::fprintf(stderr, "replaying %s (%zu frames) as a %s session against %s\n",
               options.path.c_str(), recording->frameCount(), mode.c_str(), url.c_str());
  KitServices services = makeKitServices(store, url, options.timeoutSeconds);
  DriveOptions drive;
  drive.mode = mode == "localization" ? SessionMode::localization : SessionMode::mapping;
  drive.mapID = options.mapID;
  drive.speed = options.speed;
  drive.openTimeoutSeconds = options.timeoutSeconds;
  drive.waitAfterFeedSeconds = drive.mode == SessionMode::localization ? options.timeoutSeconds : 0;
  DriveResult result = driveSession(services, recording, drive);
  if (server) server->stop();

  if (!result.status) {
    std::fprintf(stderr,
                 "omra replay: no answer from the back end at %s within %.1f s; nothing was "
                 "replayed\n",
                 url.c_str(), options.timeoutSeconds);
    return 1;
  }
  if (!result.opened()) {
    std::fprintf(stderr, "omra replay: the back end at %s did not open the session: %s (%lld)%s\n",
                 url.c_str(), statusText(*result.status).c_str(),
                 static_cast<long long>(rawValue(*result.status)),
                 *result.status == MapStatus::networkError ? "; is it running?" : "");
    return 1;
  }
  std::printf("%s session %s (map %s): %zu frames fed, %.1f s of scanning, scan progress %lld\n",
              mode.c_str(), result.sessionUUID.value_or("?").c_str(),
              result.mapUUID.value_or("?").c_str(), result.framesFed, result.scanSeconds,
              static_cast<long long>(result.scanProgress));
  for (const AssetsArrival& a : result.arrivals) {
    std::printf("assets after %.1f s of scanning (%s):\n", a.scanSeconds,
                a.localizer.empty() ? "unknown localizer" : a.localizer.c_str());
    for (const MapAsset& m : a.assets) {
      std::printf("  %s at (%.3f, %.3f, %.3f), heading %.2f rad\n", m.assetID.c_str(), m.position.x,
                  m.position.y, m.position.z, m.orientation);
    }
  }
  if (drive.mode == SessionMode::localization && result.arrivals.empty()) {
    std::printf("no assets came back\n");
  }
  return 0;
}

}  // namespace omra::tools
