// Settles a rough map-to-session transform with everything both sessions saw at once (objects,
// walls, floors and table tops, and feature points when the map holds them), robustly, then
// judges whether the two sessions' geometry really agrees with it. Nothing unverified may be
// written: a hypothesis from views that merely look alike (another room) fails here. Stateless
// apart from its options; refine() may run on any thread.
#pragma once

#include <span>
#include <vector>

#include "server/localizers/plane_refiner.h"
#include "server/localizers/point_grid.h"
#include "server/localizers/pose4.h"
#include "server/localizers/su_localizer.h"

namespace omra::server {

// What one session saw, in its own frame.
struct SceneEvidence {
  std::vector<Landmark> landmarks;
  std::vector<PlaneObservation> planes;
  std::vector<Vec3> points;
};

struct JointRefinerOptions {
  // Per-kind noise, metres (radians for headings): weights of the least squares and the scale of
  // the predicted error.
  // Objects: a landmark is where the hit tests of its detections landed, behind the faces the
  // camera saw, so two sessions that saw an object from different sides place it apart: a
  // couple of centimetres for a cup, by a share of its footprint (typicalFootprint of its label)
  // for a couch. Heights differ less: most objects show the same top to every camera.
  double objectSigma = 0.02;
  double objectSizeShare = 0.07;
  double objectHeightSigma = 0.01;
  // What the objects seen from one side share: each sits off along the view by much the same.
  // Walls fix it where they pair up; elsewhere it stays in the predicted error.
  double sharedObjectSigma = 0.02;
  // A detected plane keeps one error for its lifetime, per session: an offset along its normal
  // and, for a wall, a turn about the point it is anchored at (where it was first seen). Far from
  // that point the turn dominates, so a pair of walls is compared halfway between its anchors.
  double planeOffsetSigma = 0.01;
  double planeHeadingSigma = 0.0087;  // half a degree
  double pointSigma = 0.02;
  // Association gates, widest (first rounds) to narrowest (last rounds).
  double objectGateWide = 0.6, objectGate = 0.25;
  double wallGateWide = 0.5, wallGate = 0.12;
  double wallAngleGate = 0.17;  // radians (10 degrees)
  double floorGate = 0.2;
  // A horizontal pair's edges must run alike within this (radians, narrowest rounds) to tell the
  // heading: about four times a pair's heading noise, and an anchor squared to nothing in
  // particular seldom falls that close.
  double edgeGate = 0.05;
  // Outlines of one size within outlineAgreement (metres, each side) are taken for the same
  // extent: their middles then agree within outlineSigma along the plane (a pair's, apart from
  // the anchors' turns). A platform's extent edges wander by a few centimetres as it fits them;
  // sides that agree this well mostly wander alike.
  double outlineAgreement = 0.03;
  double outlineSigma = 0.02;
  double pointGateWide = 0.3, pointGate = 0.05;
  int rounds = 8;
  // How far refinement may move the hypothesis before it counts as another answer.
  double maxShift = 1.0, maxTurn = 0.35;
  // Verification: objects that must agree, and the share of the session's objects near the map's
  // that must.
  int minObjects = 3;
  double minObjectShare = 0.5;
  // Before any wall pairs up (early in a session), nothing but the objects says where the room
  // is, and nothing can disagree: a few objects of another room that line up by chance, among
  // more that do not, must not pass. A session in the right room agrees nearly object for object.
  // The share holds until walls of two directions agree: one wall leaves the room free along it.
  int minObjectsWithoutWalls = 4;
  double minObjectShareWithoutWalls = 0.75;
  // Evidence that leaves a larger error than this verifies nothing: a few objects that happen to
  // line up in another room leave a large one, and a result this loose is no fine result (the
  // kit takes scene-understanding answers from match value 0.55 on: about 6 cm).
  double maxPredictedError = 0.055;
  // Until walls of two directions agree, the objects alone fix the room along the walls there
  // are: a few of another room's that line up by chance leave 4-6 cm, and so do the poor first
  // answers in the right room.
  double maxPredictedErrorOneWay = 0.04;
  // Fewer objects suffice when walls of two directions and a floor agree and no wall disagrees,
  // in a map of at most wallsOfOneRoom walls: in a map of several rooms the walls of a room of the
  // same size agree with the session's as well as its own.
  int minObjectsWithWalls = 2;
  int wallsOfOneRoom = 8;
  // Agreeing objects must be of this many labels (one fewer with such walls): a row of identical
  // chairs fits any room that has such a row, and slid along it by a chair, its own. In a map of
  // several rooms the walls earn that relief only with minObjectsBesideRow agreeing objects
  // beyond those of the most common label.
  int minLabels = 3;
  int minObjectsBesideRow = 2;
  // Where barely more than half the session's nearby objects agree (fewer than looseShare of
  // them), those that do must agree within maxLooseSpread times their noise: in the right room the
  // rest are objects split or moved, and the same objects agree closely; in a room of the same
  // shape, half the objects lining up loosely is what chance gives.
  double looseShare = 0.6;
  double maxLooseSpread = 1.8;
  // A session wall facing the way a map wall faces, but this far from every such wall, disagrees.
  double wallConflict = 0.3;
  // With feature points on both sides: enough of them must agree, or they overrule the objects.
  int minPoints = 40;
  double minPointShare = 0.35;
  // The typical distance of an asset from the middle of the agreeing objects, for the heading's
  // share of the predicted error. Where the map's assets are known, the error is also read at
  // each asset within assetNear (horizontally) of an agreeing map object: the ones in the part
  // of the map the session saw, which a turn moves by more the farther out they stand.
  double leverArm = 2.0;
  double assetNear = 3.0;
  // How much wider than their sigmas residuals are believed to be before they show it (objects
  // seen from elsewhere are off by more than their jitter), and how many numbers' worth that
  // belief weighs: three objects barely move it, twenty settle it.
  double objectNoisePrior = 1.5;
  double objectNoisePriorWeight = 9;
  double planeNoisePriorWeight = 4;
  double pointNoisePriorWeight = 30;
  // Match value = exp(-predicted error / matchScale).
  double matchScale = 0.1;
};

struct JointResult {
  Pose4 transform;
  bool verified = false;
  int objects = 0;      // object pairs that agree at the end
  int objectsNear = 0;  // session objects that land near a map object of any label
  int labels = 0;       // distinct labels among the agreeing objects
  int walls = 0, horizontal = 0;
  int edges = 0, outlines = 0;  // horizontal pairs whose edges agree; pairs whose outlines do
  int wallsDisagreeing = 0;
  int points = 0, pointsNear = 0;  // agreeing points, and points that land near the map's
  bool bothWays = false;           // walls of two directions take part
  double predictedError = 1;       // metres, at the assets (see leverArm)
  double spread = 1;               // how much wider the objects' residuals are than objectSigma
  double matchValue = 0;
  std::string why;  // when not verified
};

class JointRefiner {
 public:
  explicit JointRefiner(JointRefinerOptions options = {}) : options_(options) {}

  // map points come as a grid (the map's index keeps one); session points as a list. assets:
  // where the map's assets stand (map frame), when known.
  JointResult refine(const Pose4& rough, const SceneEvidence& map, const PointGrid& mapPoints,
                     const SceneEvidence& session, std::span<const Vec3> assets = {}) const;

  const JointRefinerOptions& options() const { return options_; }

 private:
  JointRefinerOptions options_;
};

}  // namespace omra::server
