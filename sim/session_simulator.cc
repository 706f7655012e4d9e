#include "sim/session_simulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <unordered_set>

#include "sim/frame_image.h"
#include "sim/object_classes.h"
#include "sim/scan_path.h"
#include "sim/view_descriptor.h"

namespace omra::sim {
namespace {

uint64_t mix(uint64_t a, uint64_t b) {
  uint64_t z = a * 0x9E3779B97F4A7C15ULL + b + 0x632BE59BD9B4E019ULL;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

std::string randomUuid(std::mt19937_64& rng) {
  uint64_t hi = rng(), lo = rng();
  hi = (hi & 0xFFFFFFFFFFFF0FFFULL) | 0x0000000000004000ULL;  // version 4
  lo = (lo & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;  // variant 10
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(hi >> 32),
                static_cast<unsigned>((hi >> 16) & 0xFFFF), static_cast<unsigned>(hi & 0xFFFF),
                static_cast<unsigned>(lo >> 48),
                static_cast<unsigned long long>(lo & 0xFFFFFFFFFFFFULL));
  return buf;
}

double ramp(double x, double lo, double hi) { return std::clamp((x - lo) / (hi - lo), 0.0, 1.0); }

constexpr int kPersonClass = 1;              // COCO "person"
constexpr int kPersonPoints = 60;            // tracked on the person at once
constexpr double kPersonTrackSeconds = 0.5;  // a person's points last this long, then new ones
constexpr uint64_t kPersonIdBase = 1ULL << 40;

Vec3 personPointNormal(int k) {
  const Vec3 normals[4] = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {-1, 0, 0}};
  return normals[k % 4];
}

// Box-local spots on a person's front, back and sides where tracked points sit.
Vec3 personPointLocal(const SimObject& person, int k) {
  const Vec3 h = person.size * 0.5;
  const double u = std::fmod(k * 0.6180339887, 1.0) * 2 - 1;
  const double v = std::fmod(k * 0.7548776662, 1.0) * 2 - 1;
  switch (k % 4) {
    case 0:
      return {u * h.x, v * h.y, h.z};
    case 1:
      return {u * h.x, v * h.y, -h.z};
    case 2:
      return {h.x, v * h.y, u * h.z};
    default:
      return {-h.x, v * h.y, u * h.z};
  }
}

// Plane anchors of one surface as the platform would report them: the seen part grows, a second
// floor patch appears and is later merged into the first.
struct TrackedPlane {
  int surfaceId = 0;
  std::string uuid;
  bool added = false, removed = false;
  int addedFrame = 0, lastUpdateFrame = 0;
  Vec3 origin;                                        // room frame
  Vec3 u, n, w;                                       // anchor axes x, y, z in the room frame
  double minA = 0, maxA = 0, minB = 0, maxB = 0;      // reported extent
  double pMinA = 0, pMaxA = 0, pMinB = 0, pMaxB = 0;  // extent seen so far
  std::unordered_set<uint64_t> seen;
  Vec3 sum;
  double offsetError = 0, headingError = 0;  // the estimate's bias (PlaneNoise)

  void include(const Vec3& p) {
    double a = (p - origin).dot(u), b = (p - origin).dot(w);
    pMinA = std::min(pMinA, a);
    pMaxA = std::max(pMaxA, a);
    pMinB = std::min(pMinB, b);
    pMaxB = std::max(pMaxB, b);
  }
  bool grew() const {
    return pMinA < minA - 0.1 || pMaxA > maxA + 0.1 || pMinB < minB - 0.1 || pMaxB > maxB + 0.1;
  }
};

class Simulator {
 public:
  Simulator(const Room& room, const Space* space, uint64_t sceneSeed, const SessionOptions& options)
      : room_(room),
        space_(space),
        options_(options),
        path_(room, options.seed, options.path),
        rng_(mix(options.seed, 77)),
        planeRng_(mix(options.seed, 91)),
        driftRng_(mix(options.seed, 113)) {
    rec_.header.role = options.role;
    rec_.header.sceneSeed = sceneSeed;
    rec_.header.sessionSeed = options.seed;
    rec_.header.fps = options.fps;
    rec_.header.imageWidth = options.camera.imageWidth;
    rec_.header.imageHeight = options.camera.imageHeight;
    rec_.header.horizontalFovDegrees = options.camera.horizontalFovDegrees;
    origin_ = sessionOrigin(room, options);
    RecordingTruth truth;
    truth.sessionFromRoom = origin_;
    truth.room.width = room.width;
    truth.room.depth = room.depth;
    truth.room.height = room.height;
    truth.room.walkA = room.walkA;
    truth.room.walkB = room.walkB;
    truth.room.objects = room.objects;
    rec_.truth = std::move(truth);
    idSalt_ = 1 + options.seed % 900'000ULL;  // identifiers differ between sessions
    for (const PlaneSurface& s : room.surfaces) {
      TrackedPlane p;
      p.surfaceId = s.id;
      planes_.push_back(std::move(p));
    }
    floorPatch_.surfaceId = 0;
    reported_ = origin_;
    drifting_ = options.drift.positionPerMetre > 0 || options.drift.yawDegreesPerMinute != 0;
    if (drifting_) {
      std::uniform_real_distribution<double> angle(0, 2 * M_PI);
      driftHeading_ = angle(driftRng_);
      driftYawSign_ = std::uniform_int_distribution<int>(0, 1)(driftRng_) ? 1 : -1;
    }
    if (space_) buildCells();
  }

  Recording run() {
    int frames = static_cast<int>(std::lround(options_.seconds * options_.fps));
    for (int i = 0; i < frames; ++i) step(i);
    rec_.indexFrames();
    return std::move(rec_);
  }

 private:
  struct ObjectView {
    int inView = 0;
    int visible = 0;
  };

  // The camera's cell of a space: which occluders and points are worth looking at.
  size_t cellAt(const Vec3& p) const {
    size_t best = 0;
    for (size_t k = 0; k < space_->cellCenterX.size(); ++k) {
      if (std::fabs(p.x - space_->cellCenterX[k]) < std::fabs(p.x - space_->cellCenterX[best]))
        best = k;
    }
    return best;
  }

  // Per cell: a room of the objects of it and its neighbours (the walls included), and the
  // range of their points (cells' points are stored one cell after the other).
  void buildCells() {
    const size_t n = space_->cells.size();
    for (size_t k = 0; k < n; ++k) {
      Room local;
      local.width = room_.width;
      local.depth = room_.depth;
      local.height = room_.height;
      for (size_t o = 0; o < room_.objects.size(); ++o) {
        int c = space_->cellOfObject[o];
        if (c < 0 || std::abs(c - static_cast<int>(k)) <= 1)
          local.objects.push_back(room_.objects[o]);
      }
      occluders_.push_back(std::move(local));
      size_t begin = room_.points.size(), end = 0;
      for (size_t p = 0; p < room_.points.size(); ++p) {
        if (std::abs(space_->cellOfPoint[p] - static_cast<int>(k)) <= 1) {
          begin = std::min(begin, p);
          end = p + 1;
        }
      }
      pointRanges_.emplace_back(std::min(begin, end), end);
    }
  }

  // The tracked pose's error: follows the true camera, so that the reported motion is the true
  // one turned by the heading error and lengthened along a slowly turning direction.
  void advanceDrift(const Vec3& sessionPosition, double dt) {
    if (!drifting_) return;
    if (!driftStarted_) {
      driftStarted_ = true;
      lastTrue_ = sessionPosition;
      tracked_ = sessionPosition;
      return;
    }
    const Vec3 move = sessionPosition - lastTrue_;
    const double metres = move.norm();
    std::normal_distribution<double> gauss(0, 1);
    driftHeading_ += 0.4 * std::sqrt(metres) * gauss(driftRng_);
    driftYaw_ += driftYawSign_ * options_.drift.yawDegreesPerMinute * (M_PI / 180) * dt / 60;
    const Vec3 dir{std::cos(driftHeading_), 0.15 * std::sin(2 * driftHeading_),
                   std::sin(driftHeading_)};
    tracked_ = tracked_ + Mat3::rotY(driftYaw_) * move +
               dir.normalized() * (options_.drift.positionPerMetre * metres);
    lastTrue_ = sessionPosition;
    // reported = drift * origin, drift(x) = R(yaw)(x - true) + tracked.
    YawTransform drift;
    drift.theta = driftYaw_;
    const Vec3 shift = tracked_ - Mat3::rotY(driftYaw_) * sessionPosition;
    drift.tx = shift.x;
    drift.ty = shift.y;
    drift.tz = shift.z;
    reported_ = drift.compose(origin_);
  }

  // Where the platform puts a point first seen from the camera at `eye` (room frame).
  Vec3 measuredPoint(const FeaturePoint& fp, const Vec3& eye) const {
    const PointNoise& noise = options_.pointNoise;
    if (noise.depthSigma <= 0 && noise.outlierRate <= 0) return fp.position;
    std::mt19937_64 rng(mix(fp.id, options_.seed ^ 0xdeb7a11ULL));
    std::uniform_real_distribution<double> unit(0, 1);
    std::normal_distribution<double> gauss(0, 1);
    const Vec3 ray = fp.position - eye;
    const double depth = ray.norm();
    double factor = 1;
    if (unit(rng) < noise.outlierRate) {
      factor = 0.4 + 1.4 * unit(rng);
    } else {
      factor = 1 + noise.depthSigma * depth * gauss(rng);
    }
    return eye + ray * std::max(factor, 0.05);
  }

  void step(int i) {
    double t = i / options_.fps;
    CameraPose pose = path_.pose(t);
    std::mt19937_64 frameRng(mix(options_.seed, static_cast<uint64_t>(i) + 1));
    Mat3 toCamera = pose.rotation.transposed();
    advanceDrift(origin_.apply(pose.position), 1 / options_.fps);
    if (drifting_) rec_.truth->trackedFromRoom.push_back(reported_);
    const size_t cell = space_ ? cellAt(pose.position) : 0;
    const Room& near = space_ ? occluders_[cell] : room_;
    std::optional<SimObject> person;
    if (options_.personWalking && !space_) person = walkingPerson(room_, options_.seed, t);
    auto blockedByPerson = [&](const Vec3& to) {
      if (!person) return false;
      const Vec3 delta = to - pose.position;
      const double len = delta.norm();
      return rayObjectDistance(*person, pose.position, delta * (1 / len), 1e-4) < len - 1e-3;
    };

    // Feature points this frame, and how much of each object and surface is in sight.
    std::vector<ObjectView> views(room_.objects.size() + 1);
    std::vector<std::vector<const FeaturePoint*>> surfaceHits(room_.surfaces.size());
    std::vector<const FeaturePoint*> seen;
    const size_t pointsBegin = space_ ? pointRanges_[cell].first : 0;
    const size_t pointsEnd = space_ ? pointRanges_[cell].second : room_.points.size();
    for (size_t pi = pointsBegin; pi < pointsEnd; ++pi) {
      const FeaturePoint& fp = room_.points[pi];
      Vec3 rel = fp.position - pose.position;
      double dist = rel.norm();
      if (dist > options_.maxPointDistance || dist < 0.05) continue;
      if (fp.normal.dot(rel) >= 0) continue;  // facing away
      auto img = options_.camera.project(toCamera * rel);
      if (!img || img->first < 0 || img->first > 1 || img->second < 0 || img->second > 1) continue;
      ObjectView& ov = views[static_cast<size_t>(fp.objectId)];
      ++ov.inView;
      if (near.occluded(pose.position, fp.position, fp.objectId)) continue;
      if (blockedByPerson(fp.position)) continue;
      ++ov.visible;
      seen.push_back(&fp);
      if (fp.surfaceId >= 0) surfaceHits[static_cast<size_t>(fp.surfaceId)].push_back(&fp);
    }
    if (static_cast<int>(seen.size()) > options_.maxPointsPerFrame) {
      // The platform keeps a stable subset: rank by a hash of the identifier.
      std::sort(seen.begin(), seen.end(), [&](const FeaturePoint* a, const FeaturePoint* b) {
        return mix(a->id, idSalt_) < mix(b->id, idSalt_);
      });
      seen.resize(static_cast<size_t>(options_.maxPointsPerFrame));
    }

    trackPlanes(i, surfaceHits);

    RecordedFrame f;
    f.index = i;
    f.timestamp = 1000.0 + t;
    Mat3 sessionRotation = Mat3::rotY(reported_.theta) * pose.rotation;
    f.worldFromCamera = makeTransform(sessionRotation, reported_.apply(pose.position));
    Vec3 e = eulerFromRotation(sessionRotation);
    f.eulerAngles = e.toFloat3();
    for (const FeaturePoint* fp : seen) {
      uint64_t id = idSalt_ * 100'000ULL + fp->id;  // rooms hold fewer than 100000 points
      f.pointIds.push_back(id);
      if (!rec_.points.count(id)) {
        rec_.points[id] = reported_.apply(measuredPoint(*fp, pose.position)).toFloat3();
      }
    }
    if (person) addPersonPoints(*person, pose, toCamera, t, f.pointIds);
    std::sort(f.pointIds.begin(), f.pointIds.end());
    f.detections = detect(pose, toCamera, views, frameRng);
    if (person) detectPerson(*person, pose, toCamera, frameRng, f.detections);
    if (options_.descriptorFromImage) {
      std::vector<SimObject> extras;
      if (person) extras.push_back(*person);
      f.activation =
          imageDescriptor(renderView(near, options_.camera, pose, options_.lighting,
                                     kDescriptorImageSize, kDescriptorImageSize, extras));
    } else {
      f.activation = viewDescriptor(near, options_.camera, pose);
    }
    rec_.events.emplace_back(std::move(f));
  }

  // Points the platform tracks on a person: fresh ones every half second, as the person moves.
  void addPersonPoints(const SimObject& person, const CameraPose& pose, const Mat3& toCamera,
                       double t, std::vector<uint64_t>& ids) {
    const uint64_t window = static_cast<uint64_t>(t / kPersonTrackSeconds);
    const Mat3 r = Mat3::rotY(person.yaw);
    for (int k = 0; k < kPersonPoints; ++k) {
      const Vec3 local = personPointLocal(person, k);
      const Vec3 p = person.center + r * local;
      const Vec3 rel = p - pose.position;
      if ((r * personPointNormal(k)).dot(rel) >= 0) continue;  // the far side
      auto img = options_.camera.project(toCamera * rel);
      if (!img || img->first < 0 || img->first > 1 || img->second < 0 || img->second > 1) continue;
      const uint64_t id = kPersonIdBase + idSalt_ * 1'000'000ULL + window * kPersonPoints +
                          static_cast<uint64_t>(k);
      ids.push_back(id);
      if (!rec_.points.count(id)) rec_.points[id] = reported_.apply(p).toFloat3();
    }
  }

  // A person close by is seen in part: the detector still finds one when enough of the image
  // shows them.
  void detectPerson(const SimObject& person, const CameraPose& pose, const Mat3& toCamera,
                    std::mt19937_64& rng, std::vector<Detection>& out) {
    double xMin = 1e9, yMin = 1e9, xMax = -1e9, yMax = -1e9;
    int inFront = 0;
    for (const Vec3& c : Room::corners(person)) {
      Vec3 cam = toCamera * (c - pose.position);
      if (cam.z > -0.1) continue;
      ++inFront;
      auto img = options_.camera.project(cam);
      auto [x, y] = options_.camera.imageToModel(img->first, img->second);
      xMin = std::min(xMin, x), xMax = std::max(xMax, x);
      yMin = std::min(yMin, y), yMax = std::max(yMax, y);
    }
    if (inFront < 4) return;
    double cx0 = std::max(xMin, 0.0), cx1 = std::min(xMax, 1.0);
    double cy0 = std::max(yMin, 0.0), cy1 = std::min(yMax, 1.0);
    if (cx1 - cx0 < 0.03 || cy1 - cy0 < 0.03) return;
    const double area = (cx1 - cx0) * (cy1 - cy0);
    std::uniform_real_distribution<double> unit(0, 1);
    if (unit(rng) >= (1 - options_.noise.missRate) * ramp(area, 0.04, 0.15)) return;
    Detection d;
    d.classIndex = kPersonClass;
    d.score = static_cast<float>(0.6 + 0.3 * std::min(area, 1.0));
    d.xMin = static_cast<float>(cx0);
    d.xMax = static_cast<float>(cx1);
    d.yMin = static_cast<float>(cy0);
    d.yMax = static_cast<float>(cy1);
    out.push_back(d);
  }

  std::vector<Detection> detect(const CameraPose& pose, const Mat3& toCamera,
                                const std::vector<ObjectView>& views, std::mt19937_64& rng) {
    std::vector<Detection> out;
    std::uniform_real_distribution<double> unit(0, 1);
    std::normal_distribution<double> gauss(0, 1);
    const DetectorNoise& noise = options_.noise;
    for (const SimObject& o : room_.objects) {
      const ObjectView& v = views[static_cast<size_t>(o.id)];
      if (v.inView == 0 || o.classIndex <= 0) continue;
      double xMin = 1e9, yMin = 1e9, xMax = -1e9, yMax = -1e9;
      bool behind = false;
      for (const Vec3& c : Room::corners(o)) {
        Vec3 cam = toCamera * (c - pose.position);
        if (cam.z > -0.2) {
          behind = true;
          break;
        }
        auto img = options_.camera.project(cam);
        auto [x, y] = options_.camera.imageToModel(img->first, img->second);
        xMin = std::min(xMin, x);
        xMax = std::max(xMax, x);
        yMin = std::min(yMin, y);
        yMax = std::max(yMax, y);
      }
      if (behind) continue;
      double full = (xMax - xMin) * (yMax - yMin);
      double cx0 = std::max(xMin, 0.0), cx1 = std::min(xMax, 1.0);
      double cy0 = std::max(yMin, 0.0), cy1 = std::min(yMax, 1.0);
      if (cx1 - cx0 < 0.03 || cy1 - cy0 < 0.03 || full <= 0) continue;
      double inside = (cx1 - cx0) * (cy1 - cy0) / full;
      double visibleFraction = static_cast<double>(v.visible) / v.inView;
      double distance = (o.center - pose.position).norm();
      double p = (1 - noise.missRate) * ramp(visibleFraction, 0.25, 0.6) * ramp(inside, 0.35, 0.7) *
                 (distance < 7 ? 1 : 0);
      if (unit(rng) >= p) continue;
      double w = cx1 - cx0, h = cy1 - cy0;
      Detection d;
      d.classIndex = o.classIndex;
      d.objectId = o.id;
      d.score = static_cast<float>(std::clamp(
          0.55 + 0.4 * visibleFraction * inside - 0.03 * distance + noise.scoreJitter * gauss(rng),
          0.3, 0.99));
      d.xMin = static_cast<float>(cx0 + noise.boxJitter * w * gauss(rng));
      d.xMax = static_cast<float>(cx1 + noise.boxJitter * w * gauss(rng));
      d.yMin = static_cast<float>(cy0 + noise.boxJitter * h * gauss(rng));
      d.yMax = static_cast<float>(cy1 + noise.boxJitter * h * gauss(rng));
      if (d.xMax - d.xMin < 0.01 || d.yMax - d.yMin < 0.01) continue;
      out.push_back(d);
    }
    if (unit(rng) < noise.falsePositiveRate) {
      auto classes = furnitureClasses();
      Detection d;
      d.classIndex =
          classes[std::uniform_int_distribution<size_t>(0, classes.size() - 1)(rng)].index;
      d.score = static_cast<float>(0.15 + 0.4 * unit(rng));
      double cx = 0.1 + 0.8 * unit(rng), cy = 0.1 + 0.8 * unit(rng);
      double w = 0.05 + 0.25 * unit(rng), h = 0.05 + 0.25 * unit(rng);
      d.xMin = static_cast<float>(cx - w / 2);
      d.xMax = static_cast<float>(cx + w / 2);
      d.yMin = static_cast<float>(cy - h / 2);
      d.yMax = static_cast<float>(cy + h / 2);
      out.push_back(d);
    }
    return out;
  }

  void trackPlanes(int frame, const std::vector<std::vector<const FeaturePoint*>>& hits) {
    constexpr double kPatchDistance = 2.0;
    for (size_t s = 0; s < planes_.size(); ++s) {
      TrackedPlane& p = planes_[s];
      const PlaneSurface& surface = room_.surfaces[s];
      bool floorSplit = surface.kind == SurfaceKind::kFloor && !patchMerged_;
      for (const FeaturePoint* fp : hits[s]) {
        if (p.added && floorSplit && (fp->position - p.origin).norm() > kPatchDistance) {
          bool fresh = floorPatch_.seen.insert(fp->id).second;
          if (floorPatch_.added) {
            floorPatch_.include(fp->position);
          } else if (fresh) {
            floorPatch_.sum = floorPatch_.sum + fp->position;
          }
          continue;
        }
        if (p.seen.insert(fp->id).second) p.sum = p.sum + fp->position;
        if (p.added) p.include(fp->position);
      }
      if (!p.added) {
        if (p.seen.size() >= 25 && hits[s].size() >= 8) {
          start(p, surface, p.sum * (1.0 / static_cast<double>(p.seen.size())), frame, hits[s]);
        }
      } else if (p.grew() && frame - p.lastUpdateFrame >= 20) {
        report(p, PlaneEventKind::kUpdated, frame);
      }
    }
    if (patchMerged_ || !planes_[0].added) return;
    TrackedPlane& patch = floorPatch_;
    if (!patch.added && patch.seen.size() >= 20) {
      start(patch, room_.surfaces[0], patch.sum * (1.0 / static_cast<double>(patch.seen.size())),
            frame, hits[0]);
    } else if (patch.added && frame - patch.addedFrame >= 90) {
      // The platform found that both patches are one floor: the second goes, the first grows.
      report(patch, PlaneEventKind::kRemoved, frame);
      TrackedPlane& floor = planes_[0];
      for (double a : {patch.pMinA, patch.pMaxA}) {
        for (double b : {patch.pMinB, patch.pMaxB})
          floor.include(patch.origin + patch.u * a + patch.w * b);
      }
      report(floor, PlaneEventKind::kUpdated, frame);
      patchMerged_ = true;
    } else if (patch.added && patch.grew() && frame - patch.lastUpdateFrame >= 20) {
      report(patch, PlaneEventKind::kUpdated, frame);
    }
  }

  void start(TrackedPlane& p, const PlaneSurface& surface, const Vec3& centroid, int frame,
             const std::vector<const FeaturePoint*>& hits) {
    p.uuid = randomUuid(rng_);
    p.n = surface.normal;
    p.u = surface.axisU;
    p.w = p.u.cross(p.n);
    // On the plane itself, not on the points' jitter.
    p.origin = centroid - p.n * (centroid - surface.center).dot(p.n);
    std::normal_distribution<double> gauss(0, 1);
    p.offsetError = options_.planeNoise.offsetSigma * gauss(planeRng_);
    p.headingError = options_.planeNoise.headingSigmaDegrees * (M_PI / 180) * gauss(planeRng_);
    p.pMinA = p.pMaxA = p.pMinB = p.pMaxB = 0;
    for (const FeaturePoint* fp : hits) {
      if (p.seen.count(fp->id)) p.include(fp->position);
    }
    p.added = true;
    p.addedFrame = frame;
    report(p, PlaneEventKind::kAdded, frame);
  }

  void report(TrackedPlane& p, PlaneEventKind kind, int frame) {
    if (kind != PlaneEventKind::kRemoved) {
      p.minA = p.pMinA;
      p.maxA = p.pMaxA;
      p.minB = p.pMinB;
      p.maxB = p.pMaxB;
    }
    p.lastUpdateFrame = frame;
    PlaneEvent e;
    e.kind = kind;
    ArPlaneAnchor& a = e.anchor;
    a.identifier = p.uuid;
    Mat3 axes;
    for (int r = 0; r < 3; ++r) {
      const double col[3][3] = {
          {p.u.x, p.u.y, p.u.z}, {p.n.x, p.n.y, p.n.z}, {p.w.x, p.w.y, p.w.z}};
      for (int c = 0; c < 3; ++c) axes.m[r][c] = col[c][r];
    }
    // The estimate, not the surface: turned about the vertical and shifted along its normal.
    const Vec3 estimatedOrigin = p.origin + p.n * p.offsetError;
    a.transform = makeTransform(Mat3::rotY(reported_.theta + p.headingError) * axes,
                                reported_.apply(estimatedOrigin));
    a.alignment = room_.surfaces[static_cast<size_t>(p.surfaceId)].horizontal()
                      ? PlaneAlignment::kHorizontal
                      : PlaneAlignment::kVertical;
    a.center = Vec3{(p.minA + p.maxA) / 2, 0, (p.minB + p.maxB) / 2}.toFloat3();
    a.extent = Vec3{p.maxA - p.minA, 0, p.maxB - p.minB}.toFloat3();
    a.boundaryVertices =
        std::vector<Float3>{Vec3{p.minA, 0, p.minB}.toFloat3(), Vec3{p.maxA, 0, p.minB}.toFloat3(),
                            Vec3{p.maxA, 0, p.maxB}.toFloat3(), Vec3{p.minA, 0, p.maxB}.toFloat3()};
    rec_.events.emplace_back(std::move(e));
  }

  const Room& room_;
  const Space* space_ = nullptr;
  SessionOptions options_;
  ScanPath path_;
  std::mt19937_64 rng_;
  std::mt19937_64 planeRng_;  // its own stream, so plane noise leaves every other draw alone
  std::mt19937_64 driftRng_;
  YawTransform origin_;
  YawTransform reported_;  // session_from_room as the tracking has it now (drift included)
  bool drifting_ = false, driftStarted_ = false;
  Vec3 lastTrue_, tracked_;
  double driftYaw_ = 0, driftHeading_ = 0, driftYawSign_ = 1;
  std::vector<Room> occluders_;
  std::vector<std::pair<size_t, size_t>> pointRanges_;
  uint64_t idSalt_ = 1;
  std::vector<TrackedPlane> planes_;
  TrackedPlane floorPatch_;
  bool patchMerged_ = false;
  Recording rec_;
};

}  // namespace

SimObject walkingPerson(const Room& room, uint64_t sessionSeed, double t) {
  // Round the room between the scanning camera's loop and the furniture, the other way round.
  std::mt19937_64 rng(mix(sessionSeed, 0x9e750aULL));
  const double start = std::uniform_real_distribution<double>(0, 2 * M_PI)(rng);
  // Between the camera's loop and the furniture (which keeps 0.6 m off the walkway).
  const double a = room.walkA + 0.35, b = room.walkB + 0.35;
  constexpr double kSpeed = 0.9;
  const double alpha = start - kSpeed / (0.5 * (a + b)) * t;
  SimObject person;
  person.className = "person";
  person.classIndex = kPersonClass;
  person.size = {0.48, 1.72, 0.3};
  person.center = {a * std::cos(alpha), person.size.y / 2, b * std::sin(alpha)};
  // Facing along the way it walks.
  person.yaw = std::atan2(std::sin(alpha) * a, -std::cos(alpha) * b);
  return person;
}

YawTransform sessionOrigin(const Room& room, const SessionOptions& options) {
  CameraPose first = ScanPath(room, options.seed, options.path).pose(0);
  YawTransform t;
  t.theta = wrapAngle(-first.yaw);
  Vec3 shift = Mat3::rotY(t.theta) * first.position;
  t.tx = -shift.x;
  t.ty = -shift.y;
  t.tz = -shift.z;
  return t;
}

Recording simulateSession(const Room& room, uint64_t sceneSeed, const SessionOptions& options) {
  return Simulator(room, nullptr, sceneSeed, options).run();
}

Recording simulateSpaceSession(const Space& space, uint64_t sceneSeed,
                               const SessionOptions& options) {
  return Simulator(space.merged, &space, sceneSeed, options).run();
}

}  // namespace omra::sim
