// Localizer run time against scene size: the scene-understanding localizer against landmark count,
// the image matcher against frame count, and whole runs as the server answers them against maps of
// 30 s to 10 min of scanning and one of three rooms, from a SQLite store.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>

#include "server/ids.h"
#include "server/localizer_jobs.h"
#include "server/localizers/image_matcher.h"
#include "server/localizers/map_index_cache.h"
#include "server/localizers/su_localizer.h"
#include "server/map_store.h"
#include "server/server_tables.h"
#include "server/session_scene_cache.h"
#include "src/platform/store/record_store_factory.h"
#include "tests/server/server_testutil.h"

namespace omra::server {
namespace {

// The simulator's view descriptor: 4 x 4 rays of 24 values.
constexpr int kDescriptor = 384;

double cpuMs(std::clock_t since) {
  return 1000.0 * static_cast<double>(std::clock() - since) / CLOCKS_PER_SEC;
}

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

// A map of `seconds` of scanning as the kit records it: image features at the kit's pace (about
// 47 frames a second) spread over `rooms` rooms side by side, each room's objects, walls and
// floor. The session: 12 s in the first room, its views alike to some of the map's.
struct MapOfLength {
  testing::SceneRecords map, session;
};
MapOfLength mapOfLength(double seconds, int rooms, const Pose4& truth) {
  constexpr double kFramesPerSecond = 47;
  MapOfLength out;
  const auto frames = static_cast<int>(seconds * kFramesPerSecond);
  out.map.frames = testing::makeFrames(frames, kDescriptor, 17);
  for (int r = 0; r < rooms; ++r) {
    testing::SyntheticRoom room = testing::makeSyntheticRoom(100 + static_cast<uint64_t>(r), 30);
    const Pose4 place{8.0 * r, 0, 0, 0};
    const SceneEvidence placed = testing::carried(room.evidence, place, 0, 1);
    for (Landmark l : placed.landmarks) {
      l.objectId += 1000 * r;
      out.map.evidence.landmarks.push_back(l);
    }
    for (PlaneObservation p : placed.planes) {
      p.planeId += "-" + std::to_string(r);
      out.map.evidence.planes.push_back(p);
    }
    if (r == 0) {
      out.session.evidence = testing::carried(room.evidence, truth, 0.02, 3);
      out.session.evidence.points.clear();
    }
  }
  // The session re-sees a stretch of the map's frames (12 s of them).
  const size_t sessionFrames = std::min<size_t>(out.map.frames.size(), 12 * 47);
  std::vector<PosedFeatures> seen(
      out.map.frames.begin(), out.map.frames.begin() + static_cast<std::ptrdiff_t>(sessionFrames));
  out.session.frames = testing::reseen(seen, truth, 0.05, 0.3, 4);
  return out;
}

// With an argument only the whole runs of the maps whose name holds it (for profiling).
int run(const char* only) {
  const Pose4 truth{0.9, 0.02, -1.4, 1.1};
  for (int n : {10, 100, 1000}) {
    if (only) break;
    const auto map = testing::makeRoom(n, 40, 1);
    const auto session = testing::seenFrom(map, truth, 0.02, 2);
    LocalizerReport r;
    const double ms = timeMs(n >= 1000 ? 1 : 5, [&] { r = SuLocalizer().estimate(map, session); });
    std::printf("# su_localizer %d landmarks: found %d, inliers %d\n", n, r.found, r.inliers);
    std::printf("figure su_localizer_%d_landmarks %.3f ms\n", n, ms);
  }
  // Map frame count grows; the localization scan holds 1000 frames (fewer for the smallest map).
  for (int n : {100, 1000, 10000}) {
    if (only) break;
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

  // Runs as the server answers them: records in SQLite, the map's index built once (its time
  // reported apart) and reused. A localization session's records arrive in kSteps parts, and a
  // run follows each part (about what the kit's triggers ask of one session): the first run reads
  // the session from nothing, the later ones only the part that came since. Reported: the build,
  // the first run, and the median of the later image-matcher runs; a whole session's cost is all
  // its image-matcher runs plus one run of each scene-understanding localizer at the end.
  constexpr int kSteps = 20;
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("omra-bench-localizers-" + std::to_string(::getpid()) + ".db"))
                               .string();
  std::string error;
  auto store = makeRecordStore("sqlite:" + path, {}, nullptr, &error);
  if (!store || createAllTables(*store)) {
    std::fprintf(stderr, "cannot open %s: %s\n", path.c_str(), error.c_str());
    return 1;
  }
  MapStore maps(*store);
  struct MapCase {
    const char* name;
    double seconds;
    int rooms;
  };
  const MapCase cases[] = {{"map_30s", 30, 1},
                           {"map_120s", 120, 1},
                           {"map_300s", 300, 1},
                           {"map_600s", 600, 1},
                           {"multiroom", 120, 3}};
  auto ms = [](std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
  };
  for (const MapCase& c : cases) {
    if (only && !std::strstr(c.name, only)) continue;
    const std::string mapId = newUuid();
    const MapOfLength scene = mapOfLength(c.seconds, c.rooms, truth);
    testing::writeScene(*store, mapId, scene.map);
    LocalizerOptions options;
    options.cache = std::make_shared<MapIndexCache>();
    options.sessions = std::make_shared<SessionSceneCache>();
    std::optional<StoreError> e;
    const std::clock_t cpu0 = std::clock();
    const double buildMs = timeMs(1, [&] { options.cache->get(*store, mapId, &e); });
    std::printf("figure localizer_index_build_ms_%s %.1f ms\n", c.name, buildMs);
    // Processor time too: on a busy machine it says what the wall clock cannot.
    std::printf("# %s index build: %.1f ms of processor time\n", c.name, cpuMs(cpu0));

    // A few sessions one after the other, each written in parts with a run after each part.
    constexpr int kSessions = 3;
    double runCpuMs = 0;
    int runs = 0;
    std::vector<double> first, later, sessionMs;
    JobOutcome out;
    for (int k = 0; k < kSessions; ++k) {
      const std::string sessionId = newUuid();
      int64_t lastRecordId = 0;
      double total = 0;
      const size_t n = scene.session.frames.size();
      for (int step = 0; step < kSteps; ++step) {
        testing::SceneRecords part;
        if (step == 0) part.evidence = scene.session.evidence;
        part.frames.assign(
            scene.session.frames.begin() + static_cast<std::ptrdiff_t>(n * step / kSteps),
            scene.session.frames.begin() + static_cast<std::ptrdiff_t>(n * (step + 1) / kSteps));
        testing::writeScene(*store, sessionId, part, &lastRecordId);
        const auto start = std::chrono::steady_clock::now();
        const std::clock_t runCpu0 = std::clock();
        out = runLocalizer(maps, kImageMatcher, mapId, sessionId, options);
        const double runMs = ms(start);
        if (step > 0) {
          runCpuMs += cpuMs(runCpu0);
          ++runs;
        }
        (step == 0 ? first : later).push_back(runMs);
        total += runMs;
      }
      if (k == 0) {
        std::printf("# %s %s: %s; %s\n", c.name, kImageMatcher, out.summary.c_str(),
                    out.wrote ? "written" : "not written");
      }
      for (const char* localizer : {kSuLocalizer, kSuLocalizerSeeded}) {
        const auto start = std::chrono::steady_clock::now();
        out = runLocalizer(maps, localizer, mapId, sessionId, options);
        total += ms(start);
        if (k == 0) {
          std::printf("# %s %s: %s; %s\n", c.name, localizer, out.summary.c_str(),
                      out.wrote ? "written" : "not written");
        }
      }
      sessionMs.push_back(total);
    }
    auto median = [](std::vector<double> v) {
      std::sort(v.begin(), v.end());
      return v[v.size() / 2];
    };
    std::printf("figure localizer_first_run_ms_%s %.2f ms\n", c.name, median(first));
    std::printf("figure localizer_run_ms_%s %.2f ms\n", c.name, median(later));
    std::printf("# %s later runs: %.2f ms of processor time on average\n", c.name, runCpuMs / runs);
    std::printf("# %s: one session (%d image-matcher runs and 2 others) %.1f ms\n", c.name, kSteps,
                median(sessionMs));
    if (c.seconds == 300 && c.rooms == 1) {
      std::printf("figure localization_sessions_per_core_minute_map_300s %.0f sessions\n",
                  60000.0 / median(sessionMs));
    }
  }
  store.reset();
  std::filesystem::remove(path);
  std::filesystem::remove(path + "-wal");
  std::filesystem::remove(path + "-shm");
  return 0;
}

}  // namespace
}  // namespace omra::server

int main(int argc, char** argv) { return omra::server::run(argc > 1 ? argv[1] : nullptr); }
