// Cost of OmraSession::update on the host's frame thread at 60 frames/s while the back end answers
// every request after 1 s and every record save takes 50 ms: update must never wait on either.
// Measured without a detector (the recording path) and with one (adding the scene-understanding
// hand-over).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>
#include <vector>

#include "omrakit/session.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/fixed_device_info.h"
#include "src/platform/memory_logger.h"
#include "src/platform/memory_metrics_sink.h"
#include "src/platform/paced_serial_queue.h"
#include "src/platform/vision/scripted_detector_model.h"
#include "tests/session/session_testutil.h"

using namespace omra;
using Clock = std::chrono::steady_clock;

namespace {

double threadCpuMicros() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

struct Figures {
  double median = 0, p99 = 0, max = 0;
  double cpuMedian = 0, cpuP99 = 0;
  int beforeReady = 0;
  float recordedRate = 0;
};

// One session at 60 frames/s for kFrames frames; the detector, when given, adds the
// scene-understanding hand-over to the frame path.
Figures run(std::shared_ptr<DetectorModel> detector) {
  constexpr int kFrames = 300;  // five seconds at 60 frames/s
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
  env.detector = std::move(detector);

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

  Figures figures;
  std::vector<double> costs, cpu;
  costs.reserve(kFrames);
  cpu.reserve(kFrames);
  const auto period = std::chrono::microseconds(16667);
  auto next = Clock::now();
  for (int i = 0; i < kFrames; ++i) {
    ArFrame frame;
    frame.timestamp = i / 60.0;
    frame.camera.transform.columns[3] = {0.002f * i, 1.5f, 0, 1};
    frame.camera.eulerAngles = {0, 0.001f * i, 0};
    frame.capturedImage = image;
    frame.rawFeaturePoints = points;
    figures.beforeReady += !ready.load();
    const double cpuStart = threadCpuMicros();
    const auto start = Clock::now();
    session->update(frame);
    costs.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    cpu.push_back(threadCpuMicros() - cpuStart);
    next += period;
    std::this_thread::sleep_until(next);
  }
  figures.recordedRate = session->fpsDataProcess1();
  session.reset();
  store->open();
  // The HTTP client must go before the dispatcher it posts to; replies still in flight hold it.
  std::weak_ptr<HttpClient> http = env.http;
  env.http.reset();
  while (!http.expired()) std::this_thread::sleep_for(std::chrono::milliseconds(10));

  std::sort(costs.begin(), costs.end());
  figures.median = costs[costs.size() / 2];
  figures.p99 = costs[static_cast<size_t>(costs.size() * 0.99)];
  figures.max = costs.back();
  std::sort(cpu.begin(), cpu.end());
  figures.cpuMedian = cpu[cpu.size() / 2];
  figures.cpuP99 = cpu[static_cast<size_t>(cpu.size() * 0.99)];
  return figures;
}

}  // namespace

// One empty task per frame handed to a serial queue at 60/s: the plain strand (wakes its worker on
// every call) against the paced queue the session uses. Wall-clock median in microseconds.
double handOffMedian(bool paced) {
  AsioDispatcher dispatcher;
  std::shared_ptr<SerialQueue> queue = dispatcher.makeSerialQueue("bench.handoff");
  if (paced) queue = std::make_shared<PacedSerialQueue>(queue, PacedSerialQueue::Options{});
  std::vector<double> costs;
  auto next = Clock::now();
  for (int i = 0; i < 120; ++i) {
    const auto start = Clock::now();
    queue->async([] {});
    costs.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    next += std::chrono::microseconds(16667);
    std::this_thread::sleep_until(next);
  }
  queue->sync([] {});
  std::sort(costs.begin(), costs.end());
  return costs[costs.size() / 2];
}

int main() {
  OmraSettings::BUILD_HEAVY_MAP = true;  // 300 feature points per frame go to the record queue
  const double strandHandOff = handOffMedian(false);
  const double pacedHandOff = handOffMedian(true);
  const Figures recording = run(nullptr);
  // A detector that answers with no detections.
  const Figures full = run(ScriptedDetectorModel::returning(ScriptedDetectorModel::outputs(
      Tensor({91, 1917}, TensorDataType::kFloat32), Tensor({4, 1917}, TensorDataType::kFloat32),
      Tensor({1, 16, 16}, TensorDataType::kFloat32))));
  std::printf(
      "# 300 frames at 60/s per run (%d and %d before the session opened); back end 1 s per "
      "reply, store 50 ms per save; recorded %.0f and %.0f frames/s in the last second\n",
      recording.beforeReady, full.beforeReady, recording.recordedRate, full.recordedRate);
  std::printf("figure session_update_median %.2f us\n", recording.median);
  std::printf("figure session_update_p99 %.2f us\n", recording.p99);
  std::printf("figure session_update_max %.2f us\n", recording.max);
  std::printf("figure session_update_cpu_median %.2f us\n", recording.cpuMedian);
  std::printf("figure session_update_cpu_p99 %.2f us\n", recording.cpuP99);
  std::printf("figure paced_handoff_median %.2f us strand_handoff_median %.2f us ratio %.2f\n",
              pacedHandOff, strandHandOff, pacedHandOff / strandHandOff);
  std::printf("figure session_update_with_scene_median %.2f us\n", full.median);
  std::printf("figure session_update_with_scene_p99 %.2f us\n", full.p99);
  return 0;
}
