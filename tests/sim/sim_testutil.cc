#include "tests/sim/sim_testutil.h"

#include "sim/scan_path.h"

namespace omra::sim::testing {

ScenarioOptions shortScenarioOptions(uint64_t seed) {
  ScenarioOptions o;
  o.seed = seed;
  o.mappingSeconds = 4;
  o.localizationSeconds = 3;
  return o;
}

const Scenario& shortScenario() {
  static const Scenario s = makeScenario(shortScenarioOptions(7));
  return s;
}

std::vector<const RecordedFrame*> framesOf(const Recording& r) {
  std::vector<const RecordedFrame*> out;
  for (const RecordingEvent& e : r.events) {
    if (const auto* f = std::get_if<RecordedFrame>(&e)) out.push_back(f);
  }
  return out;
}

std::map<int, int> detectionCounts(const Recording& r) {
  std::map<int, int> out;
  for (const RecordedFrame* f : framesOf(r)) {
    for (const Detection& d : f->detections) {
      if (d.objectId > 0) ++out[d.objectId];
    }
  }
  return out;
}

std::vector<Vec3> truePositions(const Room& room, const Recording& r, const SessionOptions& s) {
  const ScanPath path(room, s.seed, s.path);
  std::vector<Vec3> out;
  for (const RecordedFrame* f : framesOf(r)) {
    out.push_back(r.truth->sessionFromRoom.apply(path.pose(f->index / s.fps).position));
  }
  return out;
}

}  // namespace omra::sim::testing
