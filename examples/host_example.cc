// A minimal host: opens a mapping (or localization) session against a back end, feeds it frames
// from a recording file or a generated walk around a room, stores an asset and prints what the
// kit reports.
//
//   omra_example_host --backend http://127.0.0.1:8080 --mode mapping --map living-room
//   omra_example_host --backend http://127.0.0.1:8080 --mode localization --map living-room
//   omra_example_host --backend http://127.0.0.1:8080 --recording mapping.jsonl
//
// With a recording and no detector model configured (OMRA_MODEL_PATH), the detections stored in
// the recording stand in for the detector, so that objects and image features are recorded too.
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "omrakit/default_env.h"
#include "omrakit/load_config.h"
#include "omrakit/session.h"

#ifdef OMRA_EXAMPLE_WITH_RECORDINGS
#include "sim/recording_io.h"
#include "sim/recording_player.h"
#include "sim/sim_detector.h"
#endif

namespace {

using namespace omra;
using namespace std::chrono_literals;

// Waits for a flag set on another thread.
class Signal {
 public:
  void set() {
    {
      std::lock_guard lock(mutex_);
      set_ = true;
    }
    cv_.notify_all();
  }
  bool waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return set_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool set_ = false;
};

// Frame i of a slow walk around the room's centre, looking inwards.
ArFrame generatedFrame(int i) {
  const float angle = 0.01f * static_cast<float>(i);
  ArFrame frame;
  frame.timestamp = i / 60.0;
  frame.camera.eulerAngles = {0, angle, 0};
  frame.camera.transform.columns[0] = {std::cos(angle), 0, -std::sin(angle), 0};
  frame.camera.transform.columns[2] = {std::sin(angle), 0, std::cos(angle), 0};
  frame.camera.transform.columns[3] = {2 * std::sin(angle), 1.5f, 2 * std::cos(angle), 1};
  return frame;
}

ArPlaneAnchor generatedPlane(const std::string& id, PlaneAlignment alignment, Float3 at) {
  ArPlaneAnchor plane;
  plane.identifier = id;
  plane.alignment = alignment;
  plane.transform.columns[3] = {at.x, at.y, at.z, 1};
  plane.extent = {1, 0, 1};
  plane.boundaryVertices =
      std::vector<Float3>{{-0.5f, 0, -0.5f}, {0.5f, 0, -0.5f}, {0.5f, 0, 0.5f}};
  return plane;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"OmraKit example host"};
  std::string backend, mode = "mapping", user = "example-user", map = "example-map";
  std::string key = "example-developer-key", recording;
  int frames = 300;
  app.add_option("--backend", backend, "Back end base URL, e.g. http://127.0.0.1:8080")->required();
  app.add_option("--mode", mode, "mapping or localization")
      ->check(CLI::IsMember({"mapping", "localization"}));
  app.add_option("--user", user, "User identifier");
  app.add_option("--map", map, "Map identifier");
  app.add_option("--key", key, "Developer key");
  app.add_option("--frames", frames, "Frames of the generated walk")->check(CLI::PositiveNumber);
  app.add_option("--recording", recording, "Recording file to play instead of the generated walk");
  CLI11_PARSE(app, argc, argv);

  // 1. The platform services: from configuration (omra.json, OMRA_* variables), with the back end
  //    given on the command line.
  std::string error;
  std::optional<Config> config = loadConfig(&error);
  if (!config) {
    std::fprintf(stderr, "configuration: %s\n", error.c_str());
    return 2;
  }
  config->endpoints = {backend, backend, backend, backend, backend, backend};
  if (!config->bundleIdentifier) config->bundleIdentifier = "com.example.omrahost";
#ifdef OMRA_EXAMPLE_WITH_RECORDINGS
  // Simulated phones are held in landscape: the kit's box conversions depend on it.
  if (!recording.empty() && !config->supportedOrientations) {
    config->supportedOrientations = std::vector<std::string>{
        "UIInterfaceOrientationLandscapeLeft", "UIInterfaceOrientationLandscapeRight"};
  }
#endif
  std::optional<Env> env = makeDefaultEnv(*config, &error);
  if (!env) {
    std::fprintf(stderr, "environment: %s\n", error.c_str());
    return 2;
  }
#ifdef OMRA_EXAMPLE_WITH_RECORDINGS
  std::shared_ptr<const sim::Recording> played;
  if (!recording.empty()) {
    sim::RecordingReadResult read = sim::readRecordingFile(recording);
    if (!read.recording) {
      std::fprintf(stderr, "recording: %s\n", read.error.c_str());
      return 2;
    }
    played = std::make_shared<const sim::Recording>(std::move(*read.recording));
    // The recorded detections play the detector's part unless a real model is configured.
    if (!env->detector) env->detector = std::make_shared<sim::SimDetectorModel>(played);
  }
#endif

  // 2. The session and its callbacks. Status, assets and store results arrive on the kit's main
  //    queue; progress on the thread that made progress.
  const SessionMode sessionMode =
      mode == "mapping" ? SessionMode::mapping : SessionMode::localization;
  Signal opened, assetsArrived, stored;
  std::atomic<bool> initialized{false};
  auto session = std::make_unique<OmraSession>(
      *env, sessionMode, user, map, key, /*screenHeight=*/800, /*screenWidth=*/400,
      [&](std::vector<MapAsset> assets) {
        for (const MapAsset& a : assets) {
          std::printf("asset %s at (%.2f, %.2f, %.2f)\n", a.assetID.c_str(), a.position.x,
                      a.position.y, a.position.z);
        }
        assetsArrived.set();
      },
      [](int64_t progress) {
        std::printf("scan progress %lld\n", static_cast<long long>(progress));
      },
      [&](MapStatus status) {
        std::printf("status %s (%lld)\n", mapStatusDescription(status),
                    static_cast<long long>(rawValue(status)));
        initialized = status == MapStatus::initialized;
        opened.set();
      },
      [](std::vector<DetectedObject> objects) {
        for (const DetectedObject& o : objects) std::printf("object %s\n", o.name().c_str());
      });
  if (!opened.waitFor(15s) || !initialized) {
    std::fprintf(stderr, "the session did not open\n");
    session.reset();
    std::this_thread::sleep_for(200ms);  // let the kit's last replies land before the Env goes
    return 1;
  }

  // 3. Frames and planes, at 60 frames per second.
  auto feed = [&](const ArFrame& frame) {
    session->update(frame);
    std::this_thread::sleep_for(16ms);
  };
  if (!recording.empty()) {
#ifdef OMRA_EXAMPLE_WITH_RECORDINGS
    const std::shared_ptr<const sim::Recording>& shared = played;
    sim::RecordingPlayer player(shared);
    for (const sim::RecordingEvent& event : shared->events) {
      if (const auto* frame = std::get_if<sim::RecordedFrame>(&event)) {
        feed(player.arFrame(*frame));
      } else if (const auto* plane = std::get_if<sim::PlaneEvent>(&event)) {
        if (plane->kind == sim::PlaneEventKind::kAdded) session->planeDetected(plane->anchor);
        if (plane->kind == sim::PlaneEventKind::kUpdated) session->planeUpdated(plane->anchor);
        if (plane->kind == sim::PlaneEventKind::kRemoved) session->planeRemoved(plane->anchor);
      }
    }
#else
    std::fprintf(stderr, "this build cannot read recordings\n");
    return 2;
#endif
  } else {
    for (int i = 0; i < frames; ++i) {
      if (i == 10)
        session->planeDetected(generatedPlane("FLOOR", PlaneAlignment::kHorizontal, {0, 0, 0}));
      if (i == 40)
        session->planeDetected(generatedPlane("WALL", PlaneAlignment::kVertical, {0, 1, -3}));
      feed(generatedFrame(i));
    }
  }
  std::printf("frames per second: handed in %.0f, recorded %.0f, scene understanding %.0f\n",
              session->fpsInput(), session->fpsDataProcess1(), session->fpsDataProcess2());

  // 4. Mapping: store an asset. Localization: wait for the stored assets to come back.
  if (sessionMode == SessionMode::mapping) {
    bool sent =
        session->storePlacement({MapAsset("example-cube", Vector3(0, 0.5f, -1), 0)}, [&](bool ok) {
          std::printf("asset stored: %s\n", ok ? "yes" : "no");
          stored.set();
        });
    if (sent) stored.waitFor(10s);
  } else if (!assetsArrived.waitFor(10s)) {
    std::printf("no assets relocalized yet\n");
  }

  // 5. End the session before the environment goes.
  session->dispose();
  session.reset();
  std::this_thread::sleep_for(200ms);  // let the kit's last replies land before the Env goes
  return 0;
}
