#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "server/server.h"
#include "sim/recording_io.h"
#include "src/cloud/camera_path_model.h"
#include "src/platform/config_loader.h"
#include "src/platform/store/record_store_factory.h"
#include "tools/commands.h"
#include "tools/runner/demo_text.h"
#include "tools/runner/room_placements.h"
#include "tools/runner/scenario_run.h"
#include "tools/runner/server_log_tap.h"
#include "tools/runner/session_driver.h"

namespace omra::tools {
namespace {

constexpr double kDegreesPerRadian = 180.0 / std::numbers::pi;

std::string assetText(const MapAsset& m) {
  char buffer[160];
  std::snprintf(buffer, sizeof buffer, "%s at (%.2f, %.2f, %.2f) m, heading %.1f degrees",
                m.assetID.c_str(), m.position.x, m.position.y, m.position.z,
                m.orientation * kDegreesPerRadian);
  return buffer;
}

// ", 3.2 cm and 0.4 degrees from where it belongs" when the asset is among expected.
std::string errorText(const MapAsset& m, const std::vector<MapAsset>& expected) {
  for (const MapAsset& e : expected) {
    if (e.assetID != m.assetID) continue;
    const double dx = m.position.x - e.position.x, dy = m.position.y - e.position.y,
                 dz = m.position.z - e.position.z;
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, ", %.1f cm and %.1f degrees from where it belongs",
                  100 * std::sqrt(dx * dx + dy * dy + dz * dz),
                  std::abs(headingErrorDegrees(m.orientation, e.orientation)));
    return buffer;
  }
  return {};
}

// Whether the store holds at least one camera-path record of the session.
bool framesStoredFor(RecordStore& store, const std::string& session) {
  std::optional<StoreError> error;
  QueryPage page = store.query(CameraPathModel::kTableName, AttributeValue::string(session),
                               std::nullopt, 1, &error);
  return !error && !page.items.empty();
}

}  // namespace

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

  const bool mapping = mode == "mapping";
  if (options.place && (!mapping || !recording->truth)) {
    std::fprintf(stderr, "omra replay: --place needs a mapping recording with its truth (%s)\n",
                 mapping ? "this one has none" : "this is a localization session");
    return 1;
  }
  const bool inProcess = options.server.empty();
  if (!inProcess && !options.store.empty()) {
    std::fprintf(stderr,
                 "omra replay: --store names the in-process server's store; with --server the kit "
                 "sends its records to that server\n");
    return 2;
  }
  std::string error;
  // Keeps the in-process server's warnings for the end of the run; it outlives the server.
  ServerLogTap serverLog;
  std::unique_ptr<server::Server> server;
  std::shared_ptr<RecordStore> store;  // the in-process server's
  std::string url = options.server;
  const std::string storeSpec = options.store.empty() ? "memory" : options.store;
  if (inProcess) {
    store = makeRecordStore(storeSpec, {}, nullptr, &error);
    if (!store) {
      std::fprintf(stderr, "omra replay: cannot open the store %s: %s\n", storeSpec.c_str(),
                   error.c_str());
      return 1;
    }
    server::ServerOptions s;
    s.store = store;
    s.logRequests = false;
    s.log = serverLog.sink();
    server = std::make_unique<server::Server>(std::move(s));
    if (!server->start(&error)) {
      std::fprintf(stderr, "omra replay: cannot start omra-server: %s\n", error.c_str());
      return 1;
    }
    url = server->baseUrl();
  }

  // As on a device: the records go to the back end's ingest route, through the outbox.
  std::string outbox = options.outbox;
  if (outbox.empty()) {
    Config config;
    config.bundleIdentifier = "com.omra.replay";
    outbox = defaultRecordOutboxPath(config, processEnv()).value_or("omra-replay-outbox.db");
  }
  std::fprintf(stderr, "replaying %s (%zu frames) as a %s session against %s\n",
               options.path.c_str(), recording->frameCount(), mode.c_str(), url.c_str());
  std::optional<KitServices> device =
      makeDeviceKitServices(url, outbox, options.timeoutSeconds, &error);
  if (!device) {
    std::fprintf(stderr, "omra replay: cannot open the record outbox %s: %s\n", outbox.c_str(),
                 error.c_str());
    return 1;
  }
  KitServices& services = *device;
  DriveOptions drive;
  drive.mode = mode == "localization" ? SessionMode::localization : SessionMode::mapping;
  drive.mapID = options.mapID;
  drive.speed = options.speed;
  drive.openTimeoutSeconds = options.timeoutSeconds;
  drive.waitAfterFeedSeconds = drive.mode == SessionMode::localization ? options.timeoutSeconds : 0;
  if (options.place) drive.placements = placementsOnRoomObjects(*recording);
  DriveResult result = driveSession(services, recording, drive);
  // Localizers that find no frames of a session answer nothing; say why before the wait is blamed.
  const auto warnWithoutFrames = [&](const std::optional<std::string>& session, const char* what) {
    if (!session || !framesStoredFor(*store, *session)) {
      std::fprintf(stderr,
                   "omra replay: warning: the store %s holds no camera frames of the %s %s; the "
                   "localizers read nothing of it\n",
                   storeSpec.c_str(), what, session.value_or("?").c_str());
    }
  };
  // Only the in-process server's store is known to be the one its localizers read.
  if (result.opened() && inProcess) {
    services.records->flush(std::chrono::seconds(5));
    warnWithoutFrames(result.sessionUUID, drive.mode == SessionMode::mapping
                                              ? "mapping session"
                                              : "localization session");
  }

  if (server) server->stop();
  std::vector<std::string> answered;
  for (const AssetsArrival& a : result.arrivals) answered.push_back(a.localizer);
  for (const std::string& w : serverLog.warnings()) {
    std::fprintf(stderr, "%s\n", serverWarningInWords(w, answered).c_str());
  }

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
  std::printf("%s\n", scanProgressNote().c_str());
  if (options.place) {
    std::printf("placements %s:\n", result.placementsStored.value_or(false)
                                        ? "stored"
                                        : "NOT stored (the back end refused them)");
    for (const MapAsset& m : drive.placements) std::printf("  %s\n", assetText(m).c_str());
  }
  // With the truth, each asset that comes back is compared with where it belongs: where the
  // session's tracking had its spot when it arrived.
  for (const AssetsArrival& a : result.arrivals) {
    const std::vector<MapAsset> expected =
        placementsAt(*recording, std::llround(a.scanSeconds * recording->header.fps));
    std::printf("assets after %.1f s of scanning (%s):\n", a.scanSeconds,
                a.localizer.empty() ? "unknown localizer" : a.localizer.c_str());
    for (const MapAsset& m : a.assets) {
      std::printf("  %s%s\n", assetText(m).c_str(), errorText(m, expected).c_str());
    }
  }
  if (drive.mode == SessionMode::localization && result.arrivals.empty()) {
    std::printf("no assets came back\n");
  }
  if (options.place && !result.placementsStored.value_or(false)) return 1;
  return 0;
}

}  // namespace omra::tools
