#include "tools/runner/room_placements.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "sim/camera_model.h"

namespace omra::tools {
namespace {

sim::Vec3 topOf(const sim::SimObject& o) { return o.center + sim::Vec3{0, o.size.y / 2, 0}; }

double horizontalDistance(const sim::Vec3& a, const sim::Vec3& b) {
  return std::hypot(a.x - b.x, a.z - b.z);
}

// Where a host looking at a spot has it: in the middle of the picture rather than at its edge,
// near enough to aim at.
constexpr double kImageMargin = 0.15;
constexpr double kMaxViewDistance = 5;

// Whether the top the spot stands on can be seen from `eye`: its centre or a point halfway to
// one of its corners, so that a laptop in the middle of a table does not hide the table.
bool topInSight(const sim::Room& room, const sim::Vec3& eye, const AssetSpot& spot) {
  const auto found = std::find_if(room.objects.begin(), room.objects.end(),
                                  [&](const sim::SimObject& o) { return o.id == spot.objectId; });
  if (found == room.objects.end()) return !room.occluded(eye, spot.position, spot.objectId);
  const sim::SimObject* object = &*found;
  const sim::Mat3 turn = sim::Mat3::rotY(object->yaw);
  const double hx = object->size.x / 4, hz = object->size.z / 4;
  for (const sim::Vec3& offset : {sim::Vec3{}, sim::Vec3{hx, 0, hz}, sim::Vec3{-hx, 0, hz},
                                  sim::Vec3{hx, 0, -hz}, sim::Vec3{-hx, 0, -hz}}) {
    if (!room.occluded(eye, spot.position + turn * offset, spot.objectId)) return true;
  }
  return false;
}

struct Candidate {
  int64_t frame = -1;
  double distance = std::numeric_limits<double>::infinity();
  void offer(int64_t f, double d) {
    if (d < distance) frame = f, distance = d;
  }
};

// The frame that shows the spot (first) and the frame whose camera came nearest it (second),
// both with the camera inside the spot's room.
std::pair<Candidate, Candidate> searchFrames(const sim::Recording& recording,
                                             const AssetSpot& spot) {
  const sim::RecordingTruth& truth = *recording.truth;
  const sim::Room& room = truth.room;
  sim::CameraModel camera;
  camera.imageWidth = recording.header.imageWidth;
  camera.imageHeight = recording.header.imageHeight;
  camera.horizontalFovDegrees = recording.header.horizontalFovDegrees;
  Candidate inView, nearest;
  for (const sim::RecordingEvent& event : recording.events) {
    const auto* f = std::get_if<sim::RecordedFrame>(&event);
    if (!f) continue;
    // The frame's camera in the room: the tracking's own view of the room at that frame undoes
    // the drift in its reported pose.
    const sim::YawTransform& sessionFromRoom = truth.sessionFromRoomAt(f->index);
    const sim::Vec3 eye =
        sessionFromRoom.inverse().apply(sim::Vec3::from(f->worldFromCamera.translation()));
    if (std::fabs(eye.x) >= room.width / 2 || std::fabs(eye.z) >= room.depth / 2) continue;
    const double distance = (spot.position - eye).norm();
    nearest.offer(f->index, distance);
    if (distance > kMaxViewDistance) continue;
    const sim::Mat3 roomFromCamera =
        sim::Mat3::rotY(-sessionFromRoom.theta) * sim::rotationOf(f->worldFromCamera);
    const auto image = camera.project(roomFromCamera.transposed() * (spot.position - eye));
    if (!image || image->first < kImageMargin || image->first > 1 - kImageMargin ||
        image->second < kImageMargin || image->second > 1 - kImageMargin) {
      continue;
    }
    if (!topInSight(room, eye, spot)) continue;
    inView.offer(f->index, distance);
  }
  return {inView, nearest};
}

MapAsset assetAt(const AssetSpot& spot, const sim::YawTransform& sessionFromRoom) {
  const sim::Vec3 p = sessionFromRoom.apply(spot.position);
  return MapAsset(
      spot.id, Vector3(static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z)),
      static_cast<float>(spot.yaw + sessionFromRoom.theta));
}

}  // namespace

std::vector<AssetSpot> assetSpots(const sim::Room& room) {
  std::vector<const sim::SimObject*> chosen;
  // The table first (a natural place for content), then objects spread as far apart as possible.
  for (const sim::SimObject& o : room.objects) {
    if (o.slabOnly) {
      chosen.push_back(&o);
      break;
    }
  }
  if (chosen.empty() && !room.objects.empty()) chosen.push_back(&room.objects.front());
  while (chosen.size() < 3 && chosen.size() < room.objects.size()) {
    const sim::SimObject* best = nullptr;
    double bestDistance = -1;
    for (const sim::SimObject& o : room.objects) {
      double nearest = 1e9;
      for (const sim::SimObject* c : chosen) {
        nearest = std::min(nearest, horizontalDistance(topOf(o), topOf(*c)));
      }
      if (nearest > bestDistance) bestDistance = nearest, best = &o;
    }
    chosen.push_back(best);
  }
  std::vector<AssetSpot> spots;
  const char* names[] = {"demo-cube", "demo-lamp", "demo-sign"};
  for (size_t i = 0; i < chosen.size(); ++i) {
    spots.push_back({names[i], topOf(*chosen[i]), chosen[i]->yaw, chosen[i]->id});
  }
  return spots;
}

std::optional<int64_t> placementFrame(const sim::Recording& recording, const AssetSpot& spot) {
  if (!recording.truth) return std::nullopt;
  const Candidate inView = searchFrames(recording, spot).first;
  if (inView.frame < 0) return std::nullopt;
  return inView.frame;
}

MapAsset hostPlacement(const sim::Recording& recording, const AssetSpot& spot) {
  const sim::RecordingTruth& truth = *recording.truth;
  // Without drift every frame's tracking is the session's own frame: no search needed.
  if (truth.trackedFromRoom.empty()) return assetAt(spot, truth.sessionFromRoom);
  const auto [inView, nearest] = searchFrames(recording, spot);
  int64_t frame = inView.frame >= 0 ? inView.frame : nearest.frame;
  if (frame < 0) frame = static_cast<int64_t>(truth.trackedFromRoom.size()) - 1;
  return assetAt(spot, truth.sessionFromRoomAt(frame));
}

std::vector<MapAsset> placementsAt(const sim::Recording& recording, int64_t frame) {
  std::vector<MapAsset> out;
  if (!recording.truth) return out;
  for (const AssetSpot& spot : assetSpots(recording.truth->room)) {
    out.push_back(assetAt(spot, recording.truth->sessionFromRoomAt(frame)));
  }
  return out;
}

std::vector<MapAsset> placementsOnRoomObjects(const sim::Recording& recording) {
  std::vector<MapAsset> out;
  if (!recording.truth) return out;
  for (const AssetSpot& spot : assetSpots(recording.truth->room)) {
    out.push_back(hostPlacement(recording, spot));
  }
  return out;
}

}  // namespace omra::tools
