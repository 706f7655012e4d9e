#include "tools/runner/session_driver.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "omrakit/session.h"
#include "sim/recording_feeder.h"
#include "sim/recording_player.h"
#include "sim/sim_detector.h"
#include "src/cloud/account_http_client.h"
#include "src/cloud/record_tables.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/fixed_device_info.h"
#include "src/platform/store/record_store_factory.h"
#include "tools/runner/localizer_logger.h"

namespace omra::tools {
namespace {

using Clock = std::chrono::steady_clock;

// What the kit's callbacks report, shared with them: a late callback (after driveSession returned)
// still finds it alive.
struct DriveState {
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<MapStatus> status;
  std::optional<bool> stored;
  std::vector<AssetsArrival> arrivals;
  std::atomic<double> scanSeconds{0};
  std::atomic<int64_t> progress{0};
  Clock::time_point start = Clock::now();
  std::shared_ptr<LocalizerLogger> logger;

  template <typename Pred>
  bool waitFor(double seconds, Pred pred) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::duration<double>(seconds), pred);
  }
};

// A phone held in landscape, as the simulator films: both landscape orientations declared.
std::shared_ptr<DeviceInfo> landscapePhone() {
  FixedDeviceInfo::Values v;
  v.bundleIdentifier = "com.omra.demo";
  v.systemVersion = "13.0";
  v.supportedInterfaceOrientations = std::vector<std::string>{
      "UIInterfaceOrientationLandscapeLeft", "UIInterfaceOrientationLandscapeRight"};
  return std::make_shared<FixedDeviceInfo>(std::move(v));
}

}  // namespace

KitServices makeKitServices(std::shared_ptr<RecordStore> records, std::string backendUrl,
                            double httpIdleSeconds) {
  KitServices s;
  auto dispatcher = std::make_shared<AsioDispatcher>();
  CurlHttpOptions http;
  http.idleTimeoutSeconds = httpIdleSeconds;
  // The client only refers to the dispatcher: holding the dispatcher from the client (as its
  // deleter once did) let queued work release the dispatcher from one of its own threads.
  s.dispatcher = dispatcher;
  auto client = std::make_shared<CurlHttpClient>(*dispatcher, http);
  s.http = client;
  // Work still queued may hold the client past the dispatcher; stopped first, it no longer posts.
  s.stopHttpFirst =
      std::shared_ptr<void>(nullptr, [raw = client.get()](void*) { raw->shutdown(); });
  s.records = std::move(records);
  s.backendUrl = std::move(backendUrl);
  return s;
}

std::optional<KitServices> makeDeviceKitServices(std::string backendUrl,
                                                 const std::string& outboxPath,
                                                 double httpIdleSeconds, std::string* error) {
  KitServices s = makeKitServices(nullptr, std::move(backendUrl), httpIdleSeconds);
  Config config;
  config.recordStore = "backend:" + s.backendUrl + "/prod";
  config.recordOutbox = outboxPath;
  KitStoreServices store{s.http, s.dispatcher, kitRecordTableSchemas(), kAccountHeader};
  s.records = makeRecordStore(config, store, nullptr, error);
  if (!s.records) return std::nullopt;
  return s;
}

std::string statusText(MapStatus status) { return mapStatusDescription(status); }

DriveResult driveSession(const KitServices& services,
                         std::shared_ptr<const sim::Recording> recording,
                         const DriveOptions& options) {
  DriveResult result;
  auto state = std::make_shared<DriveState>();
  state->logger = std::make_shared<LocalizerLogger>(options.kitLog);

  Env env;
  env.dispatcher = services.dispatcher;
  env.http = services.http;
  env.logger = state->logger;
  env.device = landscapePhone();
  env.records = services.records;
  env.detector = std::make_shared<sim::SimDetectorModel>(recording);

  SessionOptions sessionOptions;
  const std::string& url = services.backendUrl;
  sessionOptions.endpoints = EndpointHosts{url, url, url, url, url, url};

  std::weak_ptr<DriveState> weak = state;
  auto session = std::make_unique<OmraSession>(
      env, options.mode, options.userID, options.mapID, options.developerKey,
      /*screenHeight=*/390, /*screenWidth=*/844,
      [weak](std::vector<MapAsset> assets) {
        std::shared_ptr<DriveState> s = weak.lock();
        if (!s) return;
        AssetsArrival a;
        a.scanSeconds = s->scanSeconds.load();
        a.wallSeconds = std::chrono::duration<double>(Clock::now() - s->start).count();
        if (std::optional<LocalizerResult> result = s->logger->lastResult()) {
          a.localizer = std::move(result->localizer);
          a.matchValue = result->matchValue;
        }
        a.assets = std::move(assets);
        {
          std::lock_guard lock(s->mutex);
          s->arrivals.push_back(std::move(a));
        }
        s->changed.notify_all();
      },
      [weak](int64_t progress) {
        if (std::shared_ptr<DriveState> s = weak.lock()) s->progress.store(progress);
      },
      [weak](MapStatus status) {
        std::shared_ptr<DriveState> s = weak.lock();
        if (!s) return;
        {
          std::lock_guard lock(s->mutex);
          if (!s->status) s->status = status;
        }
        s->changed.notify_all();
      },
      nullptr, sessionOptions);

  state->waitFor(options.openTimeoutSeconds, [&] { return state->status.has_value(); });
  {
    std::lock_guard lock(state->mutex);
    result.status = state->status;
  }
  result.framesTotal = recording->frameCount();
  if (result.opened()) {
    result.sessionUUID = session->currentSessionUUID();
    result.mapUUID = session->mappingUUID();
    bool storing = false;
    if (options.mode == SessionMode::mapping && !options.placements.empty()) {
      storing = session->storePlacement(options.placements, [weak](bool ok) {
        std::shared_ptr<DriveState> s = weak.lock();
        if (!s) return;
        {
          std::lock_guard lock(s->mutex);
          s->stored = ok;
        }
        s->changed.notify_all();
      });
      if (!storing) result.placementsStored = false;
    }

    sim::RecordingPlayer player(recording);
    sim::RecordingSink sink;
    std::optional<double> firstTimestamp;
    sink.frame = [&](const ArFrame& frame) {
      if (!firstTimestamp) firstTimestamp = frame.timestamp;
      state->scanSeconds.store(frame.timestamp - *firstTimestamp);
      session->update(frame);
    };
    sink.plane = [&](sim::PlaneEventKind kind, const ArPlaneAnchor& anchor) {
      switch (kind) {
        case sim::PlaneEventKind::kAdded:
          session->planeDetected(anchor);
          break;
        case sim::PlaneEventKind::kUpdated:
          session->planeUpdated(anchor);
          break;
        case sim::PlaneEventKind::kRemoved:
          session->planeRemoved(AnyArAnchor(anchor));
          break;
      }
    };
    sim::FeedOptions feed;
    feed.speed = options.speed;
    if (options.mode == SessionMode::localization && options.settleScanSeconds >= 0) {
      feed.stop = [&] {
        std::lock_guard lock(state->mutex);
        return !state->arrivals.empty() &&
               state->scanSeconds.load() >=
                   state->arrivals.front().scanSeconds + options.settleScanSeconds;
      };
    }
    feed.progress = [&](size_t fed, size_t total) {
      if (options.progress) options.progress(fed, total, state->progress.load());
    };
    sim::FeedResult fed = sim::feedRecording(player, sink, feed);
    result.framesFed = fed.frames;
    result.scanSeconds = state->scanSeconds.load();

    if (storing) {
      state->waitFor(options.openTimeoutSeconds, [&] { return state->stored.has_value(); });
      std::lock_guard lock(state->mutex);
      result.placementsStored = state->stored;
    }
    if (options.mode == SessionMode::localization) {
      state->waitFor(options.waitAfterFeedSeconds, [&] { return !state->arrivals.empty(); });
    }
  }
  // Disposing writes out the batched records the back end's localizers read.
  session->dispose();
  session.reset();
  {
    std::lock_guard lock(state->mutex);
    result.arrivals = state->arrivals;
  }
  result.scanProgress = state->progress.load();
  result.kitErrors = state->logger->errors();
  return result;
}

}  // namespace omra::tools
