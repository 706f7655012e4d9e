// Localizer run time against scene size: the scene-understanding localizer against landmark count,
// the image matcher against frame count, and a typical room answered end to end from a SQLite
// store.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "server/ids.h"
#include "server/localizer_jobs.h"
#include "server/localizers/image_matcher.h"
#include "server/localizers/su_localizer.h"
#include "server/map_store.h"
#include "server/server_tables.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/platform/store/record_store_factory.h"
#include "tests/server/server_testutil.h"

namespace omra::server {
namespace {

// The simulator's view descriptor: 4 x 4 rays of 24 values.
constexpr int kDescriptor = 384;

// Median of a few runs, in milliseconds.
double timeMs(int runs, const std::function<void()>& f) {
  std::vector<double> t;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    f();
    t.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count());
  }
  std::sort(t.begin(), t.end());
  return t[t.size() / 2];
}

void writeScene(RecordStore& store, const std::string& id, const std::vector<Landmark>& objects,
                const std::vector<PosedFeatures>& frames) {
  int64_t frame = 0;
  for (int k = 0; k < 3; ++k) {
    for (const Landmark& l : objects) {
      SceneUnderstandingModel m(
          id, ++frame, static_cast<float>(l.position[0]), static_cast<float>(l.position[1]),
          static_cast<float>(l.position[2]), l.label, 0.9f, l.objectId, false);
      store.put(SceneUnderstandingModel::kTableName, m.toItem());
    }
  }
  std::map<int64_t, std::map<std::string, std::string>> blocks;
  for (size_t i = 0; i < frames.size(); ++i) {
    const auto f = static_cast<int64_t>(i);
    Matrix4x4 m;
    const Mat4& p = frames[i].cameraPose;
    for (size_t c = 0; c < 4; ++c) {
      m.columns[c] = {static_cast<float>(p[c]), static_cast<float>(p[4 + c]),
                      static_cast<float>(p[8 + c]), static_cast<float>(p[12 + c])};
    }
    blocks[f / 20 * 20][std::to_string(f)] = CameraPathModelQueue::poseText(m);
    std::vector<double> v(frames[i].features.begin(), frames[i].features.end());
    store.put(ImageFeaturesModel::kTableName, ImageFeaturesModel(id, f, v).toItem());
  }
  for (auto& [start, poses] : blocks) {
    store.put(CameraPathModel::kTableName, CameraPathModel(id, start, poses).toItem());
  }
}

int run() {
  const Pose4 truth{0.9, 0.02, -1.4, 1.1};
  for (int n : {10, 100, 1000}) {
    const auto map = testing::makeRoom(n, 40, 1);
    const auto session = testing::seenFrom(map, truth, 0.02, 2);
    LocalizerReport r;
    const double ms = timeMs(n >= 1000 ? 1 : 5, [&] { r = SuLocalizer().estimate(map, session); });
    std::printf("# su_localizer %d landmarks: found %d, inliers %d\n", n, r.found, r.inliers);
    std::printf("figure su_localizer_%d_landmarks %.3f ms\n", n, ms);
  }
  // Map frame count grows; the localization scan holds 1000 frames (fewer for the smallest map).
  for (int n : {100, 1000, 10000}) {
    const auto map = testing::makeFrames(n, kDescriptor, 3);
    auto session = testing::reseen(map, truth, 0.05, 0.3, 4);
    session.resize(std::min<size_t>(session.size(), 1000));
    LocalizerReport r;
    const double ms = timeMs(n >= 10000 ? 1 : 3, [&] {
      const ImageFeatureIndex index(map);
      r = ImageMatcher().estimate(index, session);
    });
    std::printf("# image_matcher %d map x %zu session frames of %d values: found %d\n", n,
                session.size(), kDescriptor, r.found);
    std::printf("figure image_matcher_%d_frames %.3f ms\n", n, ms);
  }

  // A typical room, answered as the server does: records read from SQLite, estimate, result
  // written.
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("omra-bench-localizers-" + std::to_string(::getpid()) + ".db"))
                               .string();
  std::string error;
  auto store = makeRecordStore("sqlite:" + path, {}, nullptr, &error);
  if (!store || createAllTables(*store)) {
    std::fprintf(stderr, "cannot open %s: %s\n", path.c_str(), error.c_str());
    return 1;
  }
  const std::string mapId = newUuid(), sessionId = newUuid();
  const auto objects = testing::makeRoom(50, 40, 5);
  const auto frames = testing::makeFrames(1000, kDescriptor, 6);
  writeScene(*store, mapId, objects, frames);
  writeScene(*store, sessionId, testing::seenFrom(objects, truth, 0.02, 7),
             testing::reseen(frames, truth, 0.05, 0.3, 8));
  MapStore maps(*store);
  for (const char* localizer : {kSuLocalizer, kImageMatcher}) {
    JobOutcome out;
    const double ms = timeMs(3, [&] { out = runLocalizer(maps, localizer, mapId, sessionId, {}); });
    std::printf("# typical room %s: %s\n", localizer, out.summary.c_str());
    std::printf("figure typical_room_%s_job %.3f ms\n", localizer, ms);
  }
  store.reset();
  std::filesystem::remove(path);
  std::filesystem::remove(path + "-wal");
  std::filesystem::remove(path + "-shm");
  return 0;
}

}  // namespace
}  // namespace omra::server

int main() { return omra::server::run(); }
