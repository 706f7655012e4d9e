#include "sim/scenario.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <set>

#include "sim/scan_path.h"

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
  s.drift = o.drift;
  s.pointNoise = o.pointNoise;
  s.descriptorFromImage = o.descriptorFromImage;
  return s;
}

Space makeSpace(const ScenarioOptions& o) {
  return generateSpace(derive(o.seed, 0), o.rooms, o.room);
}

size_t targetCell(const ScenarioOptions& o) {
  return static_cast<size_t>(derive(o.seed, 5) % static_cast<uint64_t>(std::max(o.rooms, 1)));
}

// Objects a camera on this path gets a good look at (most of the box in the image, enough of
// its points in sight), sampled four times a second: what a detector would report.
std::set<int> objectsInSight(const Room& room, const SessionOptions& s) {
  std::vector<std::vector<const FeaturePoint*>> pointsOf(room.objects.size() + 1);
  for (const FeaturePoint& p : room.points) {
    auto& list = pointsOf[static_cast<size_t>(p.objectId)];
    if (p.objectId > 0 && list.size() < 16) list.push_back(&p);
  }
  const ScanPath path(room, s.seed, s.path);
  std::set<int> seen;
  for (double t = 0; t < s.seconds; t += 0.25) {
    const CameraPose pose = path.pose(t);
    const Mat3 toCamera = pose.rotation.transposed();
    for (const SimObject& o : room.objects) {
      if (seen.count(o.id) || o.classIndex <= 0) continue;
      double xMin = 1e9, yMin = 1e9, xMax = -1e9, yMax = -1e9;
      bool behind = false;
      for (const Vec3& c : Room::corners(o)) {
        const Vec3 cam = toCamera * (c - pose.position);
        if (cam.z > -0.2) {
          behind = true;
          break;
        }
        auto img = s.camera.project(cam);
        auto [x, y] = s.camera.imageToModel(img->first, img->second);
        xMin = std::min(xMin, x), xMax = std::max(xMax, x);
        yMin = std::min(yMin, y), yMax = std::max(yMax, y);
      }
      if (behind || (o.center - pose.position).norm() > 6) continue;
      const double w = std::min(xMax, 1.0) - std::max(xMin, 0.0);
      const double h = std::min(yMax, 1.0) - std::max(yMin, 0.0);
      if (w < 0.03 || h < 0.03) continue;
      if (w * h / ((xMax - xMin) * (yMax - yMin)) < 0.6) continue;
      int inView = 0, visible = 0;
      for (const FeaturePoint* p : pointsOf[static_cast<size_t>(o.id)]) {
        const Vec3 rel = p->position - pose.position;
        if (p->normal.dot(rel) >= 0) continue;
        auto img = s.camera.project(toCamera * rel);
        if (!img || img->first < 0 || img->first > 1 || img->second < 0 || img->second > 1)
          continue;
        ++inView;
        if (!room.occluded(pose.position, p->position, o.id)) ++visible;
      }
      if (inView > 0 && visible >= 0.5 * inView) seen.insert(o.id);
    }
  }
  return seen;
}

// Another walk for the localization session: a shorter arc of another loop, at another height,
// from another start, chosen so that it sees the asked share of what the mapping session saw.
PathShape partialPath(const Room& room, const SessionOptions& mapping, SessionOptions loc,
                      double minShare, double maxShare, uint64_t seed) {
  const std::set<int> mapped = objectsInSight(room, mapping);
  std::mt19937_64 rng(seed);
  auto uniform = [&](double a, double b) {
    return std::uniform_real_distribution<double>(a, b)(rng);
  };
  const double mid = (minShare + maxShare) / 2;
  PathShape best;
  double bestMiss = 1e9;
  for (int attempt = 0; attempt < 24 && bestMiss > 0.04; ++attempt) {
    PathShape shape;
    shape.radiusScale = uniform(0.35, 0.95);
    shape.height = uniform(1.2, 1.65);
    shape.arcFraction = uniform(0.12, 0.55);
    shape.randomStart = false;
    shape.startAngle = uniform(0, 2 * M_PI);
    loc.path = shape;
    const std::set<int> seen = objectsInSight(room, loc);
    int common = 0;
    for (int id : seen) common += static_cast<int>(mapped.count(id));
    const double share = mapped.empty() ? 0 : static_cast<double>(common) / mapped.size();
    // Inside the range beats outside; then nearer the middle.
    const double miss = std::fabs(share - mid) + (share < minShare || share > maxShare ? 1 : 0);
    if (miss < bestMiss) bestMiss = miss, best = shape;
  }
  return best;
}

Lighting changedLighting(double change, uint64_t seed) {
  std::mt19937_64 rng(seed);
  auto side = [&] { return std::uniform_int_distribution<int>(0, 1)(rng) ? 1.0 : -1.0; };
  change = std::clamp(change, 0.0, 1.0);
  Lighting l;
  l.gain = side() > 0 ? 1 + 0.4 * change : 1 - 0.5 * change;
  l.ambient = std::clamp(l.ambient + side() * 0.25 * change, 0.1, 0.9);
  l.azimuth += side() * change * M_PI * 0.75;
  l.elevation = std::clamp(l.elevation - side() * 0.35 * change, 0.2, 1.4);
  return l;
}

}  // namespace

SessionOptions mappingSessionOptions(const ScenarioOptions& o) {
  SessionOptions s = sessionOptions(o, "mapping", 1, o.mappingSeconds);
  if (o.rooms > 1) {
    const Space space = makeSpace(o);
    for (size_t k = 0; k < space.cells.size(); ++k) {
      s.path.cells.push_back({space.cellCenterX[k], space.cells[k].walkA, space.cells[k].walkB});
    }
    // One long walk through every room, however long that takes.
    s.seconds = ScanPath(space.merged, s.seed, s.path).routeSeconds();
  }
  return s;
}

SessionOptions localizationSessionOptions(const ScenarioOptions& o) {
  SessionOptions s = sessionOptions(o, "localization", 2, o.localizationSeconds);
  s.personWalking = o.personWalking;
  if (o.lightingChange > 0) s.lighting = changedLighting(o.lightingChange, derive(o.seed, 6));
  if (o.overlapMax > 0 && !o.wrongRoom) {
    const Room room = makeScenarioRoom(o);
    SessionOptions mapping = sessionOptions(o, "mapping", 1, o.mappingSeconds);
    mapping.path = {};
    s.path = partialPath(room, mapping, s, o.overlapMin, o.overlapMax, derive(o.seed, 3));
  }
  return s;
}

std::optional<YawTransform> truthBetween(const Recording& from, const Recording& to) {
  if (!from.truth || !to.truth) return std::nullopt;
  return to.truth->sessionFromRoom.compose(from.truth->sessionFromRoom.inverse());
}

YawTransform Scenario::localizationFromMapping() const {
  return *truthBetween(*mapping, *localization);
}

std::vector<std::string_view> conditionNames() {
  return {"drift",     "points", "overlap",    "changes", "person",
          "identical", "rooms",  "appearance", "all"};
}

bool applyCondition(ScenarioOptions& o, std::string_view name) {
  if (name == "all") {
    for (std::string_view each : conditionNames()) {
      if (each != "all") applyCondition(o, each);
    }
    return true;
  }
  if (name == "drift") {
    // Phone tracking of the good kind: about 1% of the way walked, a few degrees a minute.
    o.drift.positionPerMetre = 0.01;
    o.drift.yawDegreesPerMinute = 3;
  } else if (name == "points") {
    o.pointNoise.depthSigma = 0.01;
    o.pointNoise.outlierRate = 0.05;
  } else if (name == "overlap") {
    o.overlapMin = 1.0 / 3;
    o.overlapMax = 2.0 / 3;
  } else if (name == "changes") {
    o.changes = {.moved = 3, .removed = 2, .added = 3};
  } else if (name == "person") {
    o.personWalking = true;
  } else if (name == "identical") {
    o.room.identicalRow = 5;
  } else if (name == "rooms") {
    o.rooms = std::max(o.rooms, 4);
  } else if (name == "appearance") {
    o.descriptorFromImage = true;
    o.lightingChange = 0.6;
  } else {
    return false;
  }
  return true;
}

Room makeScenarioRoom(const ScenarioOptions& options) {
  if (options.rooms > 1) return makeSpace(options).cells[targetCell(options)];
  return generateRoom(derive(options.seed, 0), options.room);
}

Scenario makeScenario(const ScenarioOptions& options) {
  Scenario s;
  s.seed = options.seed;
  s.wrongRoom = options.wrongRoom;
  std::shared_ptr<const Room> room;
  if (options.rooms > 1) {
    auto space = std::make_shared<const Space>(makeSpace(options));
    const size_t cell = targetCell(options);
    room = std::make_shared<const Room>(space->cells[cell]);
    Recording mapping = simulateSpaceSession(*space, options.seed, mappingSessionOptions(options));
    // Both truths in the frame of the room the localization happens in.
    YawTransform spaceFromCell;
    spaceFromCell.tx = space->cellCenterX[cell];
    mapping.truth->sessionFromRoom = mapping.truth->sessionFromRoom.compose(spaceFromCell);
    // The tracking's per-frame view too, or it would still take space coordinates.
    for (YawTransform& tracked : mapping.truth->trackedFromRoom) {
      tracked = tracked.compose(spaceFromCell);
    }
    mapping.truth->room = *room;
    mapping.truth->room.surfaces.clear();
    mapping.truth->room.points.clear();
    s.mapping = std::make_shared<const Recording>(std::move(mapping));
    s.space = std::move(space);
  } else {
    room = std::make_shared<const Room>(makeScenarioRoom(options));
    s.mapping = std::make_shared<const Recording>(
        simulateSession(*room, options.seed, mappingSessionOptions(options)));
  }
  s.room = room;
  std::shared_ptr<const Room> locRoom = room;
  if (options.wrongRoom) {
    // Another room of the same kind and size class, never mapped.
    RoomOptions other = options.room;
    if (options.rooms > 1) {
      other.depth = room->depth;
      other.height = room->height;
    }
    locRoom = std::make_shared<const Room>(generateRoom(derive(options.seed, 9), other));
  } else if (options.changes.moved > 0 || options.changes.removed > 0 ||
             options.changes.added > 0) {
    locRoom = std::make_shared<const Room>(
        rearrangeRoom(*room, options.changes, derive(options.seed, 4)));
  }
  s.localizationRoom = locRoom;
  s.localization = std::make_shared<const Recording>(
      simulateSession(*locRoom, options.seed, localizationSessionOptions(options)));
  return s;
}

}  // namespace omra::sim
