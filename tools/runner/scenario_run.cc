#include "tools/runner/scenario_run.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numbers>

#include "server/server.h"
#include "src/cloud/record_tables.h"
#include "src/platform/store/record_store_factory.h"
#include "tools/runner/server_log_tap.h"

namespace omra::tools {
double headingErrorDegrees(double a, double b) {
  double d = std::remainder(a - b, 2 * std::numbers::pi);
  if (d <= -std::numbers::pi) d += 2 * std::numbers::pi;
  return d * 180 / std::numbers::pi;
}

namespace {

// A fresh file name per run: several runs may go at once in one process or in several.
std::string temporaryOutboxPath() {
  static std::atomic<int> runs{0};
  return (std::filesystem::temp_directory_path() /
          ("omra-outbox-" + std::to_string(::getpid()) + "-" + std::to_string(++runs) + ".db"))
      .string();
}

// An asset as it should come back in the localization session, before anything did.
AssetOutcome expectedOutcome(const AssetSpot& spot, const sim::YawTransform& locFromRoom) {
  AssetOutcome a;
  a.id = spot.id;
  a.room = spot.position;
  a.expected = locFromRoom.apply(spot.position);
  a.expectedYaw = spot.yaw + locFromRoom.theta;
  return a;
}

}  // namespace

ScenarioReport runScenario(const ScenarioRunOptions& options) {
  const auto start = std::chrono::steady_clock::now();
  ScenarioReport report;
  report.scenario = sim::makeScenario(options.scenario);
  const sim::Scenario& scenario = report.scenario;
  // Outlives the server, whose threads write to it.
  ServerLogTap serverLog(options.serverLog);
  auto finish = [&](std::string failure) {
    report.serverWarnings = serverLog.warnings();
    report.failure = std::move(failure);
    report.success = report.failure.empty();
    report.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return report;
  };

  std::shared_ptr<RecordStore> store = options.store;
  if (!store) store = makeRecordStore("memory", {}, nullptr);
  if (std::optional<StoreError> e = ensureRecordTables(*store)) {
    return finish("cannot create the record tables: " + e->message);
  }
  server::ServerOptions serverOptions;
  serverOptions.store = store;
  serverOptions.logRequests = static_cast<bool>(options.serverLog);
  serverOptions.log = serverLog.sink();
  serverOptions.httpThreads = 8;
  server::Server server(std::move(serverOptions));
  std::string error;
  if (!server.start(&error)) return finish("cannot start omra-server: " + error);

  // The kit talks to the server over HTTP only, as a phone does: its records reach the server's
  // store through the ingest route, from an outbox of its own.
  std::string outbox = options.kitOutboxPath;
  const bool ownOutbox = outbox.empty();
  if (ownOutbox) outbox = temporaryOutboxPath();
  struct RemoveOutbox {
    std::string path;
    ~RemoveOutbox() {
      if (path.empty()) return;
      std::error_code ignored;
      for (const char* suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(path + suffix, ignored);
    }
  } removeOutbox{ownOutbox ? outbox : std::string()};
  std::optional<KitServices> device =
      makeDeviceKitServices(server.baseUrl(), outbox, /*httpIdleSeconds=*/10, &error);
  if (!device) return finish("cannot open the kit's record outbox: " + error);
  KitServices& services = *device;
  const sim::YawTransform locFromRoom = scenario.localization->truth->sessionFromRoom;
  const std::vector<AssetSpot> spots = assetSpots(*scenario.room);

  DriveOptions mapping;
  mapping.mode = SessionMode::mapping;
  mapping.mapID = "omra-demo-map-" + std::to_string(scenario.seed);
  mapping.speed = options.mappingSpeed;
  mapping.kitLog = options.kitLog;
  // As a host places them: in the mapping tracking's frame of the moment each spot was in view.
  for (const AssetSpot& spot : spots) {
    mapping.placements.push_back(hostPlacement(*scenario.mapping, spot));
  }
  if (options.progress) {
    mapping.progress = [&](size_t fed, size_t total, int64_t progress) {
      options.progress("mapping", fed, total, progress);
    };
  }
  report.mapping = driveSession(services, scenario.mapping, mapping);
  if (!report.mapping.opened()) {
    server.stop();
    return finish("the mapping session did not open: " +
                  (report.mapping.status ? statusText(*report.mapping.status)
                                         : std::string("no answer from the back end")));
  }
  if (!report.mapping.placementsStored.value_or(false)) {
    server.stop();
    return finish("the back end did not store the assets");
  }

  DriveOptions localization = mapping;
  localization.mode = SessionMode::localization;
  localization.placements.clear();
  localization.speed = options.localizationSpeed;
  localization.settleScanSeconds = options.settleScanSeconds;
  localization.waitAfterFeedSeconds = options.waitAfterFeedSeconds;
  localization.progress = nullptr;
  if (options.progress) {
    localization.progress = [&](size_t fed, size_t total, int64_t progress) {
      options.progress("localization", fed, total, progress);
    };
  }
  report.localization = driveSession(services, scenario.localization, localization);
  server.stop();
  report.wrongRoom = scenario.wrongRoom;
  report.falseRelocalization = scenario.wrongRoom && !report.localization.arrivals.empty();

  // Every callback against the truth; the last one is what the host shows in the end. With
  // tracking drift the truth is where the session's tracking put the room when the assets
  // arrived: that is where the host draws them.
  const sim::RecordingTruth& locTruth = *scenario.localization->truth;
  const double fps = scenario.localization->header.fps;
  for (const AssetsArrival& arrival : report.localization.arrivals) {
    const sim::YawTransform& locFromRoomThen =
        locTruth.sessionFromRoomAt(std::llround(arrival.scanSeconds * fps));
    ArrivalOutcome outcome;
    outcome.localizer = arrival.localizer;
    outcome.matchValue = arrival.matchValue;
    outcome.scanSeconds = arrival.scanSeconds;
    outcome.complete = true;
    for (const AssetSpot& spot : spots) {
      AssetOutcome a = expectedOutcome(spot, locFromRoomThen);
      for (const MapAsset& m : arrival.assets) {
        if (m.assetID != a.id) continue;
        a.placed = sim::Vec3{m.position.x, m.position.y, m.position.z};
        a.placedYaw = m.orientation;
        a.errorCm = (*a.placed - a.expected).norm() * 100;
        a.errorDegrees = std::fabs(headingErrorDegrees(a.placedYaw, a.expectedYaw));
        outcome.maxErrorCm = std::max(outcome.maxErrorCm, a.errorCm);
        outcome.maxErrorDegrees = std::max(outcome.maxErrorDegrees, a.errorDegrees);
      }
      if (!a.placed) outcome.complete = false;
      outcome.assets.push_back(std::move(a));
    }
    report.arrivals.push_back(std::move(outcome));
  }
  if (!report.arrivals.empty()) {
    report.assets = report.arrivals.back().assets;
  } else {
    for (const AssetSpot& spot : spots) report.assets.push_back(expectedOutcome(spot, locFromRoom));
  }
  if (!report.localization.opened()) {
    return finish("the localization session did not open: " +
                  (report.localization.status ? statusText(*report.localization.status)
                                              : std::string("no answer from the back end")));
  }
  if (scenario.wrongRoom) {
    if (report.arrivals.empty()) return finish("");
    report.firstAssetsScanSeconds = report.arrivals.front().scanSeconds;
    report.firstLocalizer = report.arrivals.front().localizer;
    report.localizer = report.arrivals.back().localizer;
    return finish("assets handed over in a room the map does not hold (from " +
                  report.firstLocalizer + ")");
  }
  if (report.arrivals.empty()) return finish("no assets came back");
  report.firstAssetsScanSeconds = report.arrivals.front().scanSeconds;
  report.firstLocalizer = report.arrivals.front().localizer;
  report.localizer = report.arrivals.back().localizer;

  std::string failure;
  for (const AssetOutcome& a : report.assets) {
    if (!a.placed) {
      failure = a.id + " did not come back";
      break;
    }
    if (a.errorCm > options.toleranceCm || a.errorDegrees > options.toleranceDegrees) {
      char text[160];
      std::snprintf(text, sizeof text,
                    " came back %.1f cm and %.1f degrees off (tolerance %g cm, %g degrees)",
                    a.errorCm, a.errorDegrees, options.toleranceCm, options.toleranceDegrees);
      failure = a.id + text;
      break;
    }
  }
  return finish(failure);
}

}  // namespace omra::tools
