// Frames per second through the two record queues into the in-memory store: camera poses (pose
// text and block logic) and raw feature points (300 a frame, compressed every 180 frames).
#include <time.h>

#include <chrono>
#include <cstdio>
#include <random>

#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/point_cloud_model_queue.h"
#include "src/cloud/record_tables.h"
#include "src/platform/store/memory_record_store.h"

namespace {

class QuietLog : public omra::Logger {
 public:
  void print(std::string_view) override { ++prints; }
  void systemLog(omra::LogLevel, std::string_view) override {}
  int prints = 0;
};

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// This thread's CPU seconds: the one core's work, whatever else the machine runs meanwhile.
double cpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

}  // namespace

int main() {
  using namespace omra;
  auto store = std::make_shared<MemoryRecordStore>();
  ensureRecordTables(*store);
  auto log = std::make_shared<QuietLog>();
  RecordWriter writer(store, log);
  SessionIdSource session = [] { return std::optional<std::string>("BENCH-SESSION"); };
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> coord(-3, 3);

  // A camera moving along a path: distinct, realistic matrices.
  constexpr int kCameraFrames = 400000;
  std::vector<Matrix4x4> poses(1024);
  for (auto& m : poses) {
    const float a = coord(rng);
    m.columns[0] = {std::cos(a), 0, -std::sin(a), 0};
    m.columns[2] = {std::sin(a), 0, std::cos(a), 0};
    m.columns[3] = {coord(rng), 1.4f + coord(rng) * 0.05f, coord(rng), 1};
  }
  CameraPathModelQueue camera(session, writer);
  auto start = std::chrono::steady_clock::now();
  double cpuStart = cpuSeconds();
  for (int f = 0; f < kCameraFrames; ++f) camera.add(poses[f & 1023], f);
  camera.save();
  const double cameraWall = kCameraFrames / seconds(std::chrono::steady_clock::now() - start);
  const double cameraRate = kCameraFrames / (cpuSeconds() - cpuStart);

  // Feature points persist over frames: each frame sees 300 points, 30 of them new.
  constexpr int kCloudFrames = 3600, kPoints = 300, kNewPerFrame = 30;
  std::vector<ArPointCloud> clouds(kCloudFrames);
  uint64_t nextId = 1000;
  for (auto& c : clouds) {
    for (int i = 0; i < kPoints; ++i) {
      const uint64_t id = i < kNewPerFrame ? nextId++ : nextId - 1 - (rng() % 270);
      c.identifiers.push_back(id);
      c.points.push_back({coord(rng), coord(rng), coord(rng)});
    }
  }
  PointCloudModelQueue cloud(session, writer);
  start = std::chrono::steady_clock::now();
  cpuStart = cpuSeconds();
  for (int f = 0; f < kCloudFrames; ++f) cloud.add(clouds[static_cast<size_t>(f)], f);
  cloud.save();
  const double cloudWall = kCloudFrames / seconds(std::chrono::steady_clock::now() - start);
  const double cloudRate = kCloudFrames / (cpuSeconds() - cpuStart);

  if (log->prints != 0 || store->itemCount("MapData-CameraPath") != kCameraFrames / 20 ||
      store->itemCount("MapData-PointCloud") != kCloudFrames / 180) {
    std::fprintf(stderr, "records were not all written (%d errors)\n", log->prints);
    return 1;
  }
  // Per CPU second of the ingesting thread (targets 100 000 and 5 000), and per wall second.
  std::printf("figure camera_path_queue_ingest %.0f frames/s\n", cameraRate);
  std::printf("figure point_cloud_queue_ingest %.0f frames/s\n", cloudRate);
  std::printf("figure camera_path_queue_ingest_wall %.0f frames/s\n", cameraWall);
  std::printf("figure point_cloud_queue_ingest_wall %.0f frames/s\n", cloudWall);
  return 0;
}
