// A room with a mapping session and a localization session in it: the simulated setting of the
// demo, the end-to-end tests and the benchmarks. Immutable once made; share it freely.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "sim/recording.h"
#include "sim/room.h"
#include "sim/session_simulator.h"

namespace omra::sim {

struct ScenarioOptions {
  uint64_t seed = 1;  // the room and both sessions derive from it
  double mappingSeconds = 30;
  double localizationSeconds = 20;
  RoomOptions room;
  CameraModel camera;
  DetectorNoise noise;
  PlaneNoise planeNoise;
};

struct Scenario {
  uint64_t seed = 0;
  std::shared_ptr<const Room> room;
  std::shared_ptr<const Recording> mapping;
  std::shared_ptr<const Recording> localization;

  // The truth a localizer should find: carries mapping-session coordinates into the
  // localization session's (p_loc = t + R(theta) p_map).
  YawTransform localizationFromMapping() const;
};

Scenario makeScenario(const ScenarioOptions& options);
// The room of the scenario alone (what makeScenario furnishes).
Room makeScenarioRoom(const ScenarioOptions& options);
// The session options makeScenario uses for each session.
SessionOptions mappingSessionOptions(const ScenarioOptions& options);
SessionOptions localizationSessionOptions(const ScenarioOptions& options);

// to_from_from between two recordings of one room, from their truths; nullopt without truths.
std::optional<YawTransform> truthBetween(const Recording& from, const Recording& to);

}  // namespace omra::sim
