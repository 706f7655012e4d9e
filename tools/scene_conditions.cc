#include "tools/scene_conditions.h"

#include <CLI/CLI.hpp>

#include "sim/scenario.h"

namespace omra::tools {
namespace {

// An option of two numbers, each within [0, max].
void addPairOption(CLI::App& app, const std::string& name, std::vector<double>& values,
                   const std::string& help, double max) {
  app.add_option(name, values, help)
      ->expected(2)
      ->check(CLI::Range(0.0, max))
      ->group("Harder world");
}

}  // namespace

void addSceneConditionOptions(CLI::App& app, SceneConditions& c) {
  std::string names;
  for (std::string_view n : sim::conditionNames())
    names += (names.empty() ? "" : ", ") + std::string(n);
  app.add_option("--hard", c.hard,
                 "Conditions at the hard benchmark's settings (repeatable): " + names)
      ->group("Harder world");
  app.add_option("--drift", c.drift, "Tracking drift: metres of error per metre walked")
      ->check(CLI::Range(0.0, 0.5))
      ->group("Harder world");
  app.add_option("--yaw-drift", c.yawDrift, "Tracking heading drift, degrees a minute")
      ->check(CLI::Range(0.0, 60.0))
      ->group("Harder world");
  app.add_option("--depth-noise", c.depthNoise,
                 "Feature-point depth error (std. dev., metres at 1 m, growing with distance^2)")
      ->check(CLI::Range(0.0, 0.5))
      ->group("Harder world");
  app.add_option("--outliers", c.outliers, "Share of feature points far off their surface")
      ->check(CLI::Range(0.0, 1.0))
      ->group("Harder world");
  addPairOption(app, "--overlap", c.overlap,
                "MIN MAX: the localization session takes another, partial path and sees this "
                "share of the objects the map saw",
                1.0);
  app.add_option("--moved", c.moved, "Objects moved between the sessions")
      ->check(CLI::Range(0, 20))
      ->group("Harder world");
  app.add_option("--removed", c.removed, "Objects removed between the sessions")
      ->check(CLI::Range(0, 20))
      ->group("Harder world");
  app.add_option("--added", c.added, "Objects added between the sessions")
      ->check(CLI::Range(0, 20))
      ->group("Harder world");
  app.add_flag("--person", c.person, "Someone walks through the localization session")
      ->group("Harder world");
  app.add_option("--identical", c.identical, "A row of this many identical chairs")
      ->check(CLI::Range(0, 10))
      ->group("Harder world");
  app.add_option("--rooms", c.rooms,
                 "A flat or office floor of this many rooms mapped in one walk; the localization "
                 "is in one of them")
      ->check(CLI::Range(1, 12))
      ->group("Harder world");
  app.add_flag("--wrong-room", c.wrongRoom,
               "Localize in a room the map does not hold (success: no assets handed over)")
      ->group("Harder world");
  app.add_flag("--image-descriptor", c.imageDescriptor,
               "The detector's activation from the rendered view, not from room coordinates")
      ->group("Harder world");
  app.add_option("--lighting-change", c.lightingChange,
                 "How much the light differs in the localization session (0 to 1)")
      ->check(CLI::Range(0.0, 1.0))
      ->group("Harder world");
  // Either way: the default error is what today's figures were measured with, and a smaller one
  // shows how much of a result's error the planes carry.
  addPairOption(app, "--plane-error", c.planeError,
                "M DEG: each detected plane's lasting error (std. dev.), metres along its normal "
                "and degrees about the vertical (default 0.01 0.5)",
                10.0);
}

bool applySceneConditions(const SceneConditions& c, sim::ScenarioOptions& o, std::string* error) {
  for (const std::string& name : c.hard) {
    if (!sim::applyCondition(o, name)) {
      if (error) *error = "unknown condition \"" + name + "\"";
      return false;
    }
  }
  if (c.drift > 0) o.drift.positionPerMetre = c.drift;
  if (c.yawDrift > 0) o.drift.yawDegreesPerMinute = c.yawDrift;
  if (c.depthNoise > 0) o.pointNoise.depthSigma = c.depthNoise;
  if (c.outliers > 0) o.pointNoise.outlierRate = c.outliers;
  if (c.overlap.size() == 2) {
    if (c.overlap[0] > c.overlap[1]) {
      if (error) *error = "--overlap wants MIN MAX with MIN <= MAX";
      return false;
    }
    o.overlapMin = c.overlap[0];
    o.overlapMax = c.overlap[1];
  }
  if (c.moved > 0) o.changes.moved = c.moved;
  if (c.removed > 0) o.changes.removed = c.removed;
  if (c.added > 0) o.changes.added = c.added;
  if (c.person) o.personWalking = true;
  if (c.identical > 0) o.room.identicalRow = c.identical;
  if (c.rooms > 1) o.rooms = c.rooms;
  if (c.wrongRoom) o.wrongRoom = true;
  if (c.imageDescriptor) o.descriptorFromImage = true;
  if (c.lightingChange > 0) o.lightingChange = c.lightingChange;
  if (c.planeError.size() == 2) {
    o.planeNoise.offsetSigma = c.planeError[0];
    o.planeNoise.headingSigmaDegrees = c.planeError[1];
  }
  return true;
}

}  // namespace omra::tools
