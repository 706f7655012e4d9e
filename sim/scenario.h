// A room with a mapping session and a localization session in it: the simulated setting of the
// demo, the end-to-end tests and the benchmarks. Immutable once made; share it freely.
//
// Every condition that makes the world less kind than the first simulator's is an option here;
// the defaults leave it out, so that a seed gives the scene it always gave.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "sim/recording.h"
#include "sim/room.h"
#include "sim/session_simulator.h"

namespace omra::sim {

struct ScenarioOptions {
  uint64_t seed = 1;  // the room and both sessions derive from it
  double mappingSeconds = 30;
  double localizationSeconds = 20;
  RoomOptions room;  // identicalRow: a row of identical chairs
  CameraModel camera;
  DetectorNoise noise;
  PlaneNoise planeNoise;
  TrackingDrift drift;    // both sessions
  PointNoise pointNoise;  // both sessions
  // Above 0: the localization session takes another, partial path, starting elsewhere, and sees
  // this share (between min and max) of the objects the mapping session saw.
  double overlapMin = 0, overlapMax = 0;
  RoomChanges changes;         // between the sessions
  bool personWalking = false;  // through the localization session
  // Above 1: a space of this many rooms, mapped in one long walk; the localization session is
  // in one of them (the scenario's room).
  int rooms = 1;
  // The localization session in a room that is not in the map at all.
  bool wrongRoom = false;
  // The detector's activation from the rendered view (not from room coordinates), and how much
  // the light changes between the sessions (0 to 1).
  bool descriptorFromImage = false;
  double lightingChange = 0;
};

struct Scenario {
  uint64_t seed = 0;
  // The room the assets are placed in, in the frame both truths refer to (for a space of several
  // rooms: the room the localization session is in).
  std::shared_ptr<const Room> room;
  // The room as the localization session found it: changed, or another room altogether.
  std::shared_ptr<const Room> localizationRoom;
  std::shared_ptr<const Space> space;  // several rooms only
  bool wrongRoom = false;
  std::shared_ptr<const Recording> mapping;
  std::shared_ptr<const Recording> localization;

  // The truth a localizer should find: carries mapping-session coordinates into the
  // localization session's (p_loc = t + R(theta) p_map). Meaningless for a wrong room.
  YawTransform localizationFromMapping() const;
};

// The hard settings of one condition by name, on top of what options holds: "drift",
// "points", "overlap", "changes", "person", "identical", "rooms", "appearance", or "all" of
// them. False for an unknown name.
bool applyCondition(ScenarioOptions& options, std::string_view name);
// The names applyCondition takes, "all" last.
std::vector<std::string_view> conditionNames();

Scenario makeScenario(const ScenarioOptions& options);
// The room of the scenario alone (what makeScenario furnishes; one room of a space).
Room makeScenarioRoom(const ScenarioOptions& options);
// The session options makeScenario uses for each session (with the scenario's conditions; the
// localization path is chosen against the room of the scenario).
SessionOptions mappingSessionOptions(const ScenarioOptions& options);
SessionOptions localizationSessionOptions(const ScenarioOptions& options);

// to_from_from between two recordings of one room, from their truths; nullopt without truths.
std::optional<YawTransform> truthBetween(const Recording& from, const Recording& to);

}  // namespace omra::sim
