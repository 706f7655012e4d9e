// Sharpens a localizer's transform with the planes both sessions detected: wall normals fix the
// heading, wall offsets the horizontal translation, floors and table tops the height. Object
// landmarks and matched views are noisy to a few centimetres and degrees; detected planes are much
// steadier, so once a rough transform pairs them up they settle it. Stateless apart from its
// options; refine() may run on any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "server/localizers/pose4.h"

namespace omra::server {

// The outline a platform gave a plane: the middle of its extent (session frame) and the extent's
// sides, the longer first. Once a surface has been seen whole, two sessions give it the same one.
struct PlaneOutline {
  Vec3 centre{};
  double longSide = 0, shortSide = 0;
};

// The newest state of one detected plane, in its session's frame.
struct PlaneObservation {
  std::string planeId;
  bool vertical = false;
  Vec3 origin{};  // a point on the plane
  Vec3 normal{};  // unit
  // The anchor's first in-plane axis: the platform squares a plane's anchor to the extent it
  // found, so on a horizontal plane it tells which way the surface's edges run (zero: unknown).
  Vec3 axis{};
  std::optional<PlaneOutline> outline{};
};

struct PlaneRefinerOptions {
  double maxHeadingDegrees = 15;  // a rough transform may be off by this much
  double maxOffset = 0.8;         // metres along a wall's normal
  double maxHeightOffset = 0.25;  // metres between horizontal planes
  double minCrossSine = 0.5;      // walls this far from parallel fix both horizontal directions
  // Walls within this of a common right-angled frame are taken for a rectangular room, and all of
  // them fix the heading together; 0 turns that off.
  double manhattanSpreadDegrees = 3;
};

struct PlaneRefinement {
  Pose4 transform;
  int walls = 0;           // wall pairs used
  int horizontal = 0;      // horizontal pairs used
  bool bothWays = false;   // walls of two directions fixed the whole horizontal translation
  bool manhattan = false;  // the heading came from all walls of a right-angled room
};

// The heading of a set of walls modulo a quarter turn: the circular mean of four times each
// wall's heading. None unless every wall lies within maxSpread (radians) of it (the room is
// rectangular).
std::optional<double> manhattanHeading(const std::vector<PlaneObservation>& planes,
                                       double maxSpread);

class PlaneRefiner {
 public:
  // True when the planes hold walls of two directions, so that refine() can fix a transform fully.
  bool canFix(const std::vector<PlaneObservation>& planes) const;

  explicit PlaneRefiner(PlaneRefinerOptions options = {}) : options_(options) {}

  // The refined transform (map frame -> session frame), or none when no wall pairs up with the
  // rough one. With walls of one direction only, the translation across them is kept.
  std::optional<PlaneRefinement> refine(const Pose4& rough,
                                        const std::vector<PlaneObservation>& map,
                                        const std::vector<PlaneObservation>& session) const;

 private:
  PlaneRefinerOptions options_;
};

}  // namespace omra::server
