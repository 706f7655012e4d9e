// Cost of OmraSession::update on the host's frame thread at 60 frames/s while the back end answers
// every request after 1 s and every record save takes 50 ms: update must never wait on either.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "omrakit/session.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/fixed_device_info.h"
#include "src/platform/memory_logger.h"
#include "src/platform/memory_metrics_sink.h"
#include "src/platform/vision/scripted_detector_model.h"
#include "tests/session/session_testutil.h"

using namespace omra;
using Clock = std::chrono::steady_clock;

int main() {
  constexpr int kFrames = 600;  // ten seconds at 60 frames/s
  ScriptedBackend backend;
  backend.setDelay(std::chrono::milliseconds(1000));
  auto store = std::make_shared<GatedRecordStore>();
  store->setDelay(std::chrono::milliseconds(50));

  auto dispatcher = std::make_shared<AsioDispatcher>();
  Env env;
  env.dispatcher = dispatcher;
  env.http = std::make_shared<CurlHttpClient>(*dispatcher);
  env.logger = std::make_shared<MemoryLogger>();
  env.device = std::make_shared<FixedDeviceInfo>();
  env.metrics = std::make_shared<MemoryMetricsSink>();
  env.records = store;
  // A detector that answers with no detections, so the scene-understanding hand-over is part of
  // the frame path as on a device.
  env.detector = ScriptedDetectorModel::returning(ScriptedDetectorModel::outputs(
      Tensor({91, 1917}, TensorDataType::kFloat32), Tensor({4, 1917}, TensorDataType::kFloat32),
      Tensor({1, 16, 16}, TensorDataType::kFloat32)));

  OmraSettings::BUILD_HEAVY_MAP = true;
  std::atomic<bool> ready{false};
  SessionOptions options;
  options.endpoints = backend.hosts();
  auto session = std::make_unique<OmraSession>(
      env, SessionMode::localization, "bench-user", "bench-map", "bench-key", 800, 400, nullptr,
      nullptr, [&](MapStatus status) { ready = status == MapStatus::initialized; }, nullptr,
      options);

  PixelBuffer image;
  image.width = 64;
  image.height = 48;
  image.bytesPerRow = 256;
  image.data = std::make_shared<std::vector<uint8_t>>(256 * 48, 100);
  ArPointCloud points;
  for (uint64_t i = 0; i < 300; ++i) {
    points.points.push_back({0.01f * i, 0.5f, -1.0f});
    points.identifiers.push_back(i);
  }

  std::vector<double> costs;
  costs.reserve(kFrames);
  int beforeReady = 0;
  const auto period = std::chrono::microseconds(16667);
  auto next = Clock::now();
  for (int i = 0; i < kFrames; ++i) {
    ArFrame frame;
    frame.timestamp = i / 60.0;
    frame.camera.transform.columns[3] = {0.002f * i, 1.5f, 0, 1};
    frame.camera.eulerAngles = {0, 0.001f * i, 0};
    frame.capturedImage = image;
    frame.rawFeaturePoints = points;
    beforeReady += !ready.load();
    const auto start = Clock::now();
    session->update(frame);
    costs.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    next += period;
    std::this_thread::sleep_until(next);
  }
  const float recorded = session->fpsDataProcess1();
  session.reset();
  store->open();

  std::sort(costs.begin(), costs.end());
  const double median = costs[costs.size() / 2];
  const double p99 = costs[static_cast<size_t>(costs.size() * 0.99)];
  std::printf(
      "# %d frames at 60/s, %d before the session opened; recorded rate in the last "
      "second %.0f frames/s\n",
      kFrames, beforeReady, recorded);
  std::printf("figure session_update_median %.2f us\n", median);
  std::printf("figure session_update_p99 %.2f us\n", p99);
  std::printf("figure session_update_max %.2f us\n", costs.back());
  // The HTTP client must go before the dispatcher it posts to.
  env.http.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  return 0;
}
