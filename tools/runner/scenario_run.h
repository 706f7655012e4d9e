// One end-to-end run over a simulated scene: omra-server in process over the given store (the kit
// reaches it over HTTP only), a mapping session that places three assets on room objects as a host
// does (see room_placements.h), a localization session from the other origin, and the relocalized
// assets compared with where that session's tracking had the room when they arrived. Blocks the
// calling thread; nothing is shared between runs except the store given.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "sim/scenario.h"
#include "tools/runner/room_placements.h"
#include "tools/runner/session_driver.h"

namespace omra::tools {

struct ScenarioRunOptions {
  sim::ScenarioOptions scenario;
  // The server's store; null: a fresh in-memory store. The kit never writes it directly: its
  // records arrive through the server's ingest route.
  std::shared_ptr<RecordStore> store;
  // The kit's record outbox file; empty: a temporary file, removed after the run.
  std::string kitOutboxPath;
  double mappingSpeed = 3;
  double localizationSpeed = 2;
  // Scan seconds to keep feeding after the first assets, so a better localizer can still answer.
  double settleScanSeconds = 5;
  double waitAfterFeedSeconds = 8;
  // Success: every asset back within these errors.
  double toleranceCm = 10;
  double toleranceDegrees = 5;
  // ("mapping" or "localization", frames fed, frames total, kit scan progress).
  std::function<void(std::string_view, size_t, size_t, int64_t)> progress;
  std::function<void(std::string_view)> kitLog;  // thread-safe; none: kit lines dropped
  // thread-safe; none: server lines dropped (its warnings are kept in the report either way)
  std::function<void(std::string_view)> serverLog;
};

// One placed asset: where it was put and where it came back.
struct AssetOutcome {
  std::string id;
  sim::Vec3 room;                   // room frame
  sim::Vec3 expected;               // truth, localization session frame
  double expectedYaw = 0;           // radians, localization session frame
  std::optional<sim::Vec3> placed;  // where the kit put it (localization session frame)
  double placedYaw = 0;
  double errorCm = 0;
  double errorDegrees = 0;
};

// One assets-found callback, compared with the truth.
struct ArrivalOutcome {
  std::string localizer;
  std::optional<double> matchValue;  // of the transform behind it, when the kit's line gave it
  double scanSeconds = 0;
  std::vector<AssetOutcome> assets;
  double maxErrorCm = 0;
  double maxErrorDegrees = 0;
  bool complete = false;  // every placed asset came back
};

struct ScenarioReport {
  sim::Scenario scenario;
  DriveResult mapping;
  DriveResult localization;
  std::vector<ArrivalOutcome> arrivals;  // every callback, in order
  std::vector<AssetOutcome> assets;      // the last assets the kit handed over
  std::string localizer;                 // which localizer placed them
  std::optional<double> firstAssetsScanSeconds;
  std::string firstLocalizer;
  // A localization in a room the map does not hold: success is getting no assets at all, and
  // any assets handed over are a false relocalization.
  bool wrongRoom = false;
  bool falseRelocalization = false;
  bool success = false;
  std::string failure;  // why not, when !success
  double wallSeconds = 0;
  std::vector<std::string> serverWarnings;  // the server's warning lines, in order
};

// Heading difference a - b wrapped to (-180, 180] degrees.
double headingErrorDegrees(double a, double b);

ScenarioReport runScenario(const ScenarioRunOptions& options);

}  // namespace omra::tools
