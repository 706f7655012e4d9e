#include "server/localizers/map_index.h"

#include <future>

#include "server/plane_records.h"
#include "server/session_records.h"

namespace omra::server {

std::string SceneReadStats::text() const {
  if (skipped() == 0) return "";
  std::string out = "; skipped " + std::to_string(skipped()) + " contradicting record(s) (";
  bool first = true;
  auto part = [&](size_t n, const char* what) {
    if (n == 0) return;
    if (!first) out += ", ";
    first = false;
    out += std::to_string(n) + " " + what;
  };
  part(skippedObjects, "object(s) without label or position");
  part(skippedFrames, "frame(s) without pose or features");
  part(skippedPlanes, "plane(s) without transform or normal");
  part(skippedPoints, "point(s) that are not numbers");
  return out + ")";
}

SessionScene readSessionScene(RecordStore& store, const std::string& sessionId, bool images,
                              std::optional<StoreError>* error) {
  SessionScene scene;
  // Image features are most of the reading: they go on beside the rest.
  std::optional<StoreError> frameError;
  ReadStats frameStats;
  std::future<std::vector<PosedFeatures>> frames;
  if (images) {
    frames = std::async(std::launch::async, [&] {
      return readPosedFeatures(store, sessionId, &frameError, &frameStats);
    });
  }
  ReadStats objectStats, pointStats;
  std::optional<StoreError> own;
  scene.evidence.landmarks = buildLandmarks(readObservations(store, sessionId, &own, &objectStats));
  if (!own) scene.evidence.planes = readPlanes(store, sessionId, &own, &scene.stats.skippedPlanes);
  if (!own) scene.evidence.points = readPoints(store, sessionId, &own, &pointStats);
  if (images) scene.frames = frames.get();
  if (!own) own = frameError;
  if (own && error) *error = own;
  scene.stats.records = objectStats.records + pointStats.records + frameStats.records;
  scene.stats.skippedObjects = objectStats.skipped;
  scene.stats.skippedPoints = pointStats.skipped;
  scene.stats.skippedFrames = frameStats.skipped;
  return scene;
}

MapIndex::MapIndex(SessionScene scene)
    : scene_(std::move(scene)),
      images_(scene_.frames),
      points_(scene_.evidence.points, JointRefinerOptions{}.pointGateWide) {
  // The index holds its own copy of the features; the frames are not needed twice.
  scene_.frames.clear();
  scene_.frames.shrink_to_fit();
}

size_t MapIndex::bytes() const {
  return images_.bytes() + points_.bytes() + scene_.evidence.points.capacity() * sizeof(Vec3) +
         scene_.evidence.landmarks.size() * (sizeof(Landmark) + 16) +
         scene_.evidence.planes.size() * (sizeof(PlaneObservation) + 16);
}

}  // namespace omra::server
