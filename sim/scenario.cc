#include "sim/scenario.h"

namespace omra::sim {
namespace {

uint64_t derive(uint64_t seed, uint64_t salt) {
  uint64_t z = seed + salt * 0x9E3779B97F4A7C15ULL;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

SessionOptions sessionOptions(const ScenarioOptions& o, const char* role, uint64_t salt,
                              double seconds) {
  SessionOptions s;
  s.role = role;
  s.seed = derive(o.seed, salt);
  s.seconds = seconds;
  s.camera = o.camera;
  s.noise = o.noise;
  s.planeNoise = o.planeNoise;
  return s;
}

}  // namespace

SessionOptions mappingSessionOptions(const ScenarioOptions& o) {
  return sessionOptions(o, "mapping", 1, o.mappingSeconds);
}

SessionOptions localizationSessionOptions(const ScenarioOptions& o) {
  return sessionOptions(o, "localization", 2, o.localizationSeconds);
}

std::optional<YawTransform> truthBetween(const Recording& from, const Recording& to) {
  if (!from.truth || !to.truth) return std::nullopt;
  return to.truth->sessionFromRoom.compose(from.truth->sessionFromRoom.inverse());
}

YawTransform Scenario::localizationFromMapping() const {
  return *truthBetween(*mapping, *localization);
}

Room makeScenarioRoom(const ScenarioOptions& options) {
  return generateRoom(derive(options.seed, 0), options.room);
}

Scenario makeScenario(const ScenarioOptions& options) {
  Scenario s;
  s.seed = options.seed;
  auto room = std::make_shared<Room>(makeScenarioRoom(options));
  s.room = room;
  s.mapping = std::make_shared<const Recording>(
      simulateSession(*room, options.seed, mappingSessionOptions(options)));
  s.localization = std::make_shared<const Recording>(
      simulateSession(*room, options.seed, localizationSessionOptions(options)));
  return s;
}

}  // namespace omra::sim
