// The C surface over OmraSession. Every entry point validates its arguments, catches everything
// and maps it to a status: a host in another language must never see a C++ exception or touch
// freed memory through a stale handle.
#include "omrakit/omrakit_c.h"

#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "omrakit/session.h"
#include "omrakit/version.h"
#include "src/platform/config_loader.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/env/default_env.h"

struct OmraEnv {
  omra::Env env;
};

struct OmraSession {
  std::unique_ptr<omra::OmraSession> session;
};

namespace omra {
namespace {

// Handles are validated against the set of live ones, so that a stale or foreign pointer gives
// OMRA_STATUS_INVALID_HANDLE instead of being dereferenced.
class HandleRegistry {
 public:
  void add(const void* p) {
    std::lock_guard<std::mutex> lock(mutex_);
    live_.insert(p);
  }
  bool remove(const void* p) {
    std::lock_guard<std::mutex> lock(mutex_);
    return live_.erase(p) > 0;
  }
  bool contains(const void* p) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return live_.count(p) > 0;
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_set<const void*> live_;
};

HandleRegistry& envs() {
  static HandleRegistry r;
  return r;
}
HandleRegistry& sessions() {
  static HandleRegistry r;
  return r;
}

// The message of this thread's most recent call; "" after a success.
thread_local std::string tLastError;

OmraStatus succeed() {
  tLastError.clear();
  return OMRA_STATUS_SUCCESS;
}

// Records why a call failed (and logs it at debug level: the status already tells the host).
OmraStatus fail(OmraStatus status, std::string message) {
  tLastError = std::move(message);
  logLine(LogLevel::kDebug, tLastError);
  return status;
}

OmraStatus invalidHandle(const char* name, const char* kind) {
  return fail(OMRA_STATUS_INVALID_HANDLE, std::string(name) + " is not a live " + kind +
                                              " handle (NULL, destroyed or foreign)");
}

OmraStatus nullArgument(const char* name) {
  return fail(OMRA_STATUS_INVALID_ARGUMENT, std::string(name) + " is NULL");
}

// Runs body, turning any escaping exception into a status.
template <typename F>
OmraStatus guarded(F&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return fail(OMRA_STATUS_INTERNAL, "out of memory");
  } catch (const std::exception& e) {
    return fail(OMRA_STATUS_INTERNAL, std::string("internal error: ") + e.what());
  } catch (...) {
    return fail(OMRA_STATUS_INTERNAL, "internal error");
  }
}

bool finite3(const OmraVec3& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

Matrix4x4 toMatrix(const float m[16]) {
  Matrix4x4 out;
  for (size_t c = 0; c < 4; ++c) {
    out.columns[c] = Float4{m[c * 4], m[c * 4 + 1], m[c * 4 + 2], m[c * 4 + 3]};
  }
  return out;
}

Float3 toFloat3(const OmraVec3& v) { return {v.x, v.y, v.z}; }
OmraVec3 toC(const Vector3& v) { return {v.x, v.y, v.z}; }
OmraVec3 toC(const Float3& v) { return {v.x, v.y, v.z}; }
Vector3 toVector3(const OmraVec3& v) { return {v.x, v.y, v.z}; }

// Each converter returns "" or what is wrong with its input.
std::string convertPlane(const OmraPlaneAnchor* in, ArPlaneAnchor* out) {
  if (!in->identifier) return "anchor->identifier is NULL";
  if (in->alignment != OMRA_PLANE_HORIZONTAL && in->alignment != OMRA_PLANE_VERTICAL) {
    return "anchor->alignment " + std::to_string(in->alignment) +
           " is neither OMRA_PLANE_HORIZONTAL nor OMRA_PLANE_VERTICAL";
  }
  if (in->boundary_vertex_count > 0 && !in->boundary_vertices) {
    return "anchor->boundary_vertex_count is " + std::to_string(in->boundary_vertex_count) +
           " but anchor->boundary_vertices is NULL";
  }
  out->identifier = in->identifier;
  out->transform = toMatrix(in->transform);
  out->alignment = in->alignment == OMRA_PLANE_VERTICAL ? PlaneAlignment::kVertical
                                                        : PlaneAlignment::kHorizontal;
  out->center = toFloat3(in->center);
  out->extent = toFloat3(in->extent);
  if (in->boundary_vertices) {
    std::vector<Float3> vertices;
    vertices.reserve(in->boundary_vertex_count);
    for (size_t i = 0; i < in->boundary_vertex_count; ++i) {
      vertices.push_back(toFloat3(in->boundary_vertices[i]));
    }
    out->boundaryVertices = std::move(vertices);
  }
  return {};
}

// The kit may call the hit test after update() returned; it copies the function pointer and the
// user pointer, which the header asks the host to keep valid.
HitTestFunction wrapHitTest(OmraHitTestFn fn, void* user) {
  if (!fn) return {};
  return [fn, user](Float2 point, HitTestType) {
    constexpr size_t kCapacity = 64;
    OmraHitTestResult results[kCapacity];
    size_t n = fn(user, point.x, point.y, results, kCapacity);
    if (n > kCapacity) n = kCapacity;
    std::vector<HitTestResult> hits;
    hits.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      hits.push_back({toMatrix(results[i].world_transform), results[i].distance});
    }
    return hits;
  };
}

std::string convertFrame(const OmraFrame* in, ArFrame* out) {
  if (in->feature_count > 0 && (!in->feature_points || !in->feature_identifiers)) {
    return "frame->feature_count is " + std::to_string(in->feature_count) +
           " but frame->feature_points or frame->feature_identifiers is NULL";
  }
  if (in->image_bgra) {
    if (in->image_width <= 0 || in->image_height <= 0) {
      return "frame->image_width and image_height must be positive (" +
             std::to_string(in->image_width) + " x " + std::to_string(in->image_height) + ")";
    }
    const size_t minRow = static_cast<size_t>(in->image_width) * 4;
    if (in->image_bytes_per_row < minRow) {
      return "frame->image_bytes_per_row " + std::to_string(in->image_bytes_per_row) +
             " is less than 4 x image_width";
    }
    // Guard the copy below against sizes that overflow.
    if (in->image_bytes_per_row > (SIZE_MAX / static_cast<size_t>(in->image_height))) {
      return "frame image size overflows";
    }
  }
  out->timestamp = in->timestamp;
  out->camera.transform = toMatrix(in->camera_transform);
  out->camera.eulerAngles = toFloat3(in->euler_angles);
  if (in->image_bgra) {
    PixelBuffer image;
    image.width = in->image_width;
    image.height = in->image_height;
    image.bytesPerRow = in->image_bytes_per_row;
    const size_t bytes = in->image_bytes_per_row * static_cast<size_t>(in->image_height);
    image.data = std::make_shared<std::vector<uint8_t>>(in->image_bgra, in->image_bgra + bytes);
    out->capturedImage = std::move(image);
  }
  if (in->feature_points) {
    ArPointCloud cloud;
    cloud.points.reserve(in->feature_count);
    for (size_t i = 0; i < in->feature_count; ++i) {
      cloud.points.push_back(toFloat3(in->feature_points[i]));
    }
    cloud.identifiers.assign(in->feature_identifiers, in->feature_identifiers + in->feature_count);
    out->rawFeaturePoints = std::move(cloud);
  }
  out->hitTest = wrapHitTest(in->hit_test, in->hit_test_user);
  return {};
}

std::string convertAssets(const OmraMapAsset* assets, size_t count, std::vector<MapAsset>* out) {
  if (count > 0 && !assets) return "count is " + std::to_string(count) + " but assets is NULL";
  out->reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const OmraMapAsset& a = assets[i];
    if (!a.asset_id) return "assets[" + std::to_string(i) + "].asset_id is NULL";
    MapAsset asset(a.asset_id, toVector3(a.position), a.orientation);
    asset.confidence = a.confidence;
    if (a.matrix) asset.matrix = a.matrix;
    out->push_back(std::move(asset));
  }
  return {};
}

// Main queue backed by the host's post function.
class HostMainQueue : public MainQueue {
 public:
  HostMainQueue(OmraPostFn post, void* user) : post_(post), user_(user) {}

  void post(Task task) override {
    auto* heap = new Task(std::move(task));
    post_(user_, &HostMainQueue::run, heap);
  }
  // The host's thread is not known to the kit; callers that need to know assume "not current"
  // and post, which is always correct.
  bool isCurrent() const override { return false; }

 private:
  static void run(void* taskUser) {
    std::unique_ptr<Task> task(static_cast<Task*>(taskUser));
    try {
      (*task)();
    } catch (...) {
      // A kit task must not unwind into the host's loop.
    }
  }

  OmraPostFn post_;
  void* user_;
};

}  // namespace
}  // namespace omra

using omra::AnyArAnchor;
using omra::ArFrame;
using omra::ArPlaneAnchor;
using omra::Config;
using omra::convertAssets;
using omra::convertFrame;
using omra::convertPlane;
using omra::DetectedObject;
using omra::Env;
using omra::EnvLookup;
using omra::envs;
using omra::fail;
using omra::finite3;
using omra::guarded;
using omra::HostMainQueue;
using omra::invalidHandle;
using omra::Map;
using omra::MapAsset;
using omra::MapStatus;
using omra::nullArgument;
using omra::Quaternion;
using omra::SessionMode;
using omra::sessions;
using omra::succeed;
using omra::toC;
using omra::toVector3;
using omra::UnityMultiplayerTransform;
using SessionCallbacks = omra::OmraSession;

#define OMRA_CHECK_SESSION(s) \
  if (!(s) || !sessions().contains(s)) return invalidHandle("session", "OmraSession")

// The three anchor entry points differ only in the session call.
template <typename Call>
OmraStatus withPlane(OmraSession* session, const OmraPlaneAnchor* anchor, Call call) {
  if (!anchor) return nullArgument("anchor");
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    ArPlaneAnchor plane;
    if (std::string error = convertPlane(anchor, &plane); !error.empty()) {
      return fail(OMRA_STATUS_INVALID_ARGUMENT, std::move(error));
    }
    call(*session->session, plane);
    return succeed();
  });
}

extern "C" {

const char* omra_status_string(OmraStatus status) {
  switch (status) {
    case OMRA_STATUS_SUCCESS:
      return "success";
    case OMRA_STATUS_INVALID_ARGUMENT:
      return "invalid argument";
    case OMRA_STATUS_INVALID_HANDLE:
      return "invalid handle";
    case OMRA_STATUS_NOT_INITIALIZED:
      return "session not initialized yet";
    case OMRA_STATUS_CONFIGURATION:
      return "configuration error";
    case OMRA_STATUS_INTERNAL:
      return "internal error";
    default:
      return "unknown status";
  }
}

const char* omra_version(void) { return omra::OMRA_POD_VERSION; }

int32_t omra_version_number(void) { return OMRA_VERSION_NUMBER; }

const char* omra_last_error(void) { return omra::tLastError.c_str(); }

OmraStatus omra_set_log_callback(OmraLogFn fn, void* user, OmraLogLevel min_level) {
  if (min_level < OMRA_LOG_DEBUG || min_level > OMRA_LOG_ERROR) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT,
                "min_level " + std::to_string(min_level) + " is not an OMRA_LOG_* level");
  }
  return guarded([&]() -> OmraStatus {
    if (!fn) {
      omra::setLogHandler(nullptr);
      return succeed();
    }
    const auto level = static_cast<omra::LogLevel>(min_level);
    omra::setLogHandler(
        [fn, user](omra::LogLevel l, std::string_view message) {
          const std::string text(message);  // NUL-terminated for the host
          fn(user, static_cast<OmraLogLevel>(l), text.c_str());
        },
        level);
    return succeed();
  });
}

OmraStatus omra_env_create(const char* config_path, OmraEnv** out_env) {
  if (!out_env) return nullArgument("out_env");
  return guarded([&]() -> OmraStatus {
    std::string error;
    std::optional<Config> config;
    if (config_path) {
      EnvLookup env = omra::processEnv();
      EnvLookup withPath = [&](const std::string& name) -> std::optional<std::string> {
        if (name == "OMRA_CONFIG") return std::string(config_path);
        return env(name);
      };
      config = omra::loadConfig(withPath, &error);
    } else {
      config = omra::loadConfig(&error);
    }
    if (!config) {
      omra::logLine(omra::LogLevel::kError, "configuration: " + error);
      return fail(OMRA_STATUS_CONFIGURATION, "configuration: " + error);
    }
    std::optional<Env> env = omra::makeDefaultEnv(*config, &error);
    if (!env) {
      omra::logLine(omra::LogLevel::kError, error);
      return fail(OMRA_STATUS_CONFIGURATION, error);
    }
    auto handle = std::make_unique<OmraEnv>();
    handle->env = std::move(*env);
    envs().add(handle.get());
    *out_env = handle.release();
    return succeed();
  });
}

void omra_env_destroy(OmraEnv* env) {
  if (!env || !envs().remove(env)) return;
  try {
    // Replies still in flight must not be posted to a dispatcher that is going away.
    if (auto* curl = dynamic_cast<omra::CurlHttpClient*>(env->env.http.get())) curl->shutdown();
    delete env;
  } catch (...) {
  }
}

OmraStatus omra_env_set_main_queue(OmraEnv* env, OmraPostFn post, void* user) {
  if (!post) return nullArgument("post");
  if (!env || !envs().contains(env)) return invalidHandle("env", "OmraEnv");
  return guarded([&]() -> OmraStatus {
    env->env.dispatcher->installMainQueue(std::make_shared<HostMainQueue>(post, user));
    return succeed();
  });
}

OmraStatus omra_settings_get(OmraSettings* out_settings) {
  if (!out_settings) return nullArgument("out_settings");
  out_settings->struct_size = sizeof(OmraSettings);
  out_settings->timeout_threshold = omra::OmraSettings::TIMEOUT_THRESHOLD.load();
  out_settings->use_beta_algo = omra::OmraSettings::USE_BETA_ALGO.load() ? 1 : 0;
  out_settings->retrieve_assets_interval = omra::OmraSettings::RETRIEVE_ASSETS_INTERVAL.load();
  out_settings->build_heavy_map = omra::OmraSettings::BUILD_HEAVY_MAP.load() ? 1 : 0;
  return succeed();
}

OmraStatus omra_settings_set(const OmraSettings* settings) {
  if (!settings) return nullArgument("settings");
  if (settings->struct_size < sizeof(OmraSettings)) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT,
                "settings->struct_size is " + std::to_string(settings->struct_size) +
                    ": set it to sizeof(OmraSettings) (OMRA_SETTINGS_INIT)");
  }
  if (settings->retrieve_assets_interval < 0) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT,
                "settings->retrieve_assets_interval is negative (" +
                    std::to_string(settings->retrieve_assets_interval) + ")");
  }
  omra::OmraSettings::TIMEOUT_THRESHOLD = settings->timeout_threshold;
  omra::OmraSettings::USE_BETA_ALGO = settings->use_beta_algo != 0;
  omra::OmraSettings::RETRIEVE_ASSETS_INTERVAL = settings->retrieve_assets_interval;
  omra::OmraSettings::BUILD_HEAVY_MAP = settings->build_heavy_map != 0;
  return succeed();
}

OmraStatus omra_session_create(OmraEnv* env, const OmraSessionOptions* options,
                               OmraSession** out_session) {
  if (!options) return nullArgument("options");
  if (!out_session) return nullArgument("out_session");
  if (options->struct_size < sizeof(OmraSessionOptions)) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT,
                "options->struct_size is " + std::to_string(options->struct_size) +
                    ": set it to sizeof(OmraSessionOptions) (OMRA_SESSION_OPTIONS_INIT)");
  }
  if (!options->user_id) return nullArgument("options->user_id");
  if (!options->map_id) return nullArgument("options->map_id");
  if (!options->developer_key) return nullArgument("options->developer_key");
  if (options->mode != OMRA_SESSION_MODE_MAPPING &&
      options->mode != OMRA_SESSION_MODE_LOCALIZATION) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT,
                "options->mode " + std::to_string(options->mode) + " is not an OMRA_SESSION_MODE");
  }
  if (!std::isfinite(options->screen_height) || !std::isfinite(options->screen_width) ||
      options->screen_height <= 0 || options->screen_width <= 0) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT,
                "options->screen_width and screen_height must be positive and finite");
  }
  if (!env || !envs().contains(env)) return invalidHandle("env", "OmraEnv");
  // A session cannot start without a host application identifier; refuse it here rather than
  // letting the kit stop the process.
  if (!env->env.device || !env->env.device->bundleIdentifier()) {
    return fail(OMRA_STATUS_CONFIGURATION,
                "no bundle identifier: set \"bundleIdentifier\" in the configuration file or "
                "OMRA_BUNDLE_ID");
  }

  return guarded([&]() -> OmraStatus {
    const OmraSessionOptions o = *options;  // the callbacks and user pointer outlive this call
    SessionCallbacks::AssetsFoundCallback assetsFound;
    if (o.assets_found) {
      assetsFound = [fn = o.assets_found, user = o.user](std::vector<MapAsset> assets) {
        std::vector<OmraMapAsset> out;
        out.reserve(assets.size());
        for (const MapAsset& a : assets) {
          out.push_back(
              {a.assetID.c_str(), toC(a.position), a.orientation, a.confidence, a.matrix.c_str()});
        }
        fn(user, out.data(), out.size());
      };
    }
    SessionCallbacks::ProgressCallback progress;
    if (o.progress) {
      progress = [fn = o.progress, user = o.user](int64_t value) { fn(user, value); };
    }
    SessionCallbacks::StatusCallback status;
    if (o.status) {
      status = [fn = o.status, user = o.user](MapStatus s) {
        fn(user, static_cast<OmraMapStatus>(s));
      };
    }
    SessionCallbacks::ObjectDetectedCallback detected;
    if (o.objects_detected) {
      detected = [fn = o.objects_detected, user = o.user](std::vector<DetectedObject> objects) {
        std::vector<OmraDetectedObject> out;
        out.reserve(objects.size());
        for (const DetectedObject& d : objects) {
          out.push_back({d.name().c_str(), d.confidence(), toC(d.center()), d.width(), d.height(),
                         d.depth(), d.orientation(), d.id()});
        }
        fn(user, out.data(), out.size());
      };
    }
    omra::SessionOptions sessionOptions;
    // Every callback of a C host arrives on the main queue, progress and objects included.
    sessionOptions.callbacksOnMainQueue = true;
    auto handle = std::make_unique<::OmraSession>();
    handle->session = std::make_unique<omra::OmraSession>(
        env->env,
        o.mode == OMRA_SESSION_MODE_MAPPING ? SessionMode::mapping : SessionMode::localization,
        o.user_id, o.map_id, o.developer_key, o.screen_height, o.screen_width,
        std::move(assetsFound), std::move(progress), std::move(status), std::move(detected),
        std::move(sessionOptions));
    sessions().add(handle.get());
    *out_session = handle.release();
    return succeed();
  });
}

void omra_session_destroy(OmraSession* session) {
  if (!session || !sessions().remove(session)) return;
  try {
    delete session;
  } catch (...) {
  }
}

OmraStatus omra_session_update(OmraSession* session, const OmraFrame* frame) {
  if (!frame) return nullArgument("frame");
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    ArFrame f;
    if (std::string error = convertFrame(frame, &f); !error.empty()) {
      return fail(OMRA_STATUS_INVALID_ARGUMENT, std::move(error));
    }
    session->session->update(f);
    return succeed();
  });
}

OmraStatus omra_session_plane_added(OmraSession* session, const OmraPlaneAnchor* anchor) {
  // The anchor path counts progress with its cap and moves the frame counter.
  return withPlane(session, anchor,
                   [](omra::OmraSession& s, const ArPlaneAnchor& p) { s.planeDetected(p); });
}

OmraStatus omra_session_plane_updated(OmraSession* session, const OmraPlaneAnchor* anchor) {
  return withPlane(session, anchor,
                   [](omra::OmraSession& s, const ArPlaneAnchor& p) { s.planeUpdated(p); });
}

OmraStatus omra_session_plane_removed(OmraSession* session, const OmraPlaneAnchor* anchor) {
  return withPlane(session, anchor, [](omra::OmraSession& s, const ArPlaneAnchor& p) {
    s.planeRemoved(AnyArAnchor(p));
  });
}

OmraStatus omra_session_store_placement(OmraSession* session, const OmraMapAsset* assets,
                                        size_t count, OmraStoreResultFn callback, void* user,
                                        int32_t* out_sent) {
  if (!out_sent) return nullArgument("out_sent");
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    std::vector<MapAsset> list;
    if (std::string error = convertAssets(assets, count, &list); !error.empty()) {
      return fail(OMRA_STATUS_INVALID_ARGUMENT, std::move(error));
    }
    SessionCallbacks::StoreCallback done = [callback, user](bool stored) {
      if (callback) callback(user, stored ? 1 : 0);
    };
    *out_sent = session->session->storePlacement(list, std::move(done)) ? 1 : 0;
    return succeed();
  });
}

OmraStatus omra_session_list_nearby_maps(OmraSession* session, const char* user_id,
                                         double longitude, double latitude, double longitude_delta,
                                         double latitude_delta, OmraMapsFoundFn callback,
                                         void* user) {
  if (!callback) return nullArgument("callback");
  if (!std::isfinite(longitude) || !std::isfinite(latitude) || !std::isfinite(longitude_delta) ||
      !std::isfinite(latitude_delta)) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT, "a coordinate or delta is not finite");
  }
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    std::optional<std::string> userId;
    if (user_id) userId = std::string(user_id);
    SessionCallbacks::MapsFoundCallback done = [callback, user](std::vector<Map> maps) {
      std::vector<OmraMap> out;
      out.reserve(maps.size());
      for (const Map& m : maps) {
        out.push_back({m.userID.c_str(), m.mapID.c_str(), m.latitude, m.longitude, m.altitude,
                       m.horizontalAccuracy, m.verticalAccuracy});
      }
      callback(user, out.data(), out.size());
    };
    bool sent = session->session->listNearbyMaps(userId, longitude, latitude, longitude_delta,
                                                 latitude_delta, std::move(done));
    if (!sent) {
      return fail(OMRA_STATUS_NOT_INITIALIZED,
                  "the session is not initialized yet: wait for OMRA_MAP_STATUS_INITIALIZED");
    }
    return succeed();
  });
}

OmraStatus omra_session_dispose(OmraSession* session) {
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    session->session->dispose();
    return succeed();
  });
}

OmraStatus omra_session_mode(const OmraSession* session, OmraSessionMode* out_mode) {
  if (!out_mode) return nullArgument("out_mode");
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    *out_mode = static_cast<OmraSessionMode>(session->session->omraSessionMode());
    return succeed();
  });
}

OmraStatus omra_session_current_uuid(const OmraSession* session, char* buffer, size_t capacity,
                                     size_t* out_length) {
  if (!out_length) return nullArgument("out_length");
  if (capacity > 0 && !buffer) return nullArgument("buffer");
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    std::string uuid = session->session->currentSessionUUID().value_or("");
    if (uuid.size() + 1 > capacity) {
      if (uuid.empty()) {
        *out_length = 0;
        return succeed();
      }
      return fail(OMRA_STATUS_INVALID_ARGUMENT, "capacity " + std::to_string(capacity) +
                                                    " is too small: the identifier needs " +
                                                    std::to_string(uuid.size() + 1) + " bytes");
    }
    std::memcpy(buffer, uuid.c_str(), uuid.size() + 1);
    *out_length = uuid.size();
    return succeed();
  });
}

OmraStatus omra_session_fps(const OmraSession* session, float* out_input, float* out_persisted,
                            float* out_scene) {
  if (!out_input) return nullArgument("out_input");
  if (!out_persisted) return nullArgument("out_persisted");
  if (!out_scene) return nullArgument("out_scene");
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    *out_input = session->session->fpsInput();
    *out_persisted = session->session->fpsDataProcess1();
    *out_scene = session->session->fpsDataProcess2();
    return succeed();
  });
}

OmraStatus omra_unity_multiplayer_sync(OmraVec3 local_a, OmraVec3 local_b, OmraVec3 remote_a,
                                       OmraVec3 remote_b, const OmraQuaternion* rotation_remote,
                                       OmraUnityMultiplayerTransform* out_transform) {
  if (!out_transform) return nullArgument("out_transform");
  if (!finite3(local_a) || !finite3(local_b) || !finite3(remote_a) || !finite3(remote_b)) {
    return fail(OMRA_STATUS_INVALID_ARGUMENT, "a point has a coordinate that is not finite");
  }
  return guarded([&]() -> OmraStatus {
    std::optional<Quaternion> rotation;
    if (rotation_remote) {
      rotation = Quaternion(rotation_remote->x, rotation_remote->y, rotation_remote->z,
                            rotation_remote->w);
    }
    UnityMultiplayerTransform t = omra::OmraSession::unityMultiplayerSync(
        toVector3(local_a), toVector3(local_b), toVector3(remote_a), toVector3(remote_b), rotation);
    const Quaternion& q = t.rotationRemoteToLocal;
    out_transform->rotation_remote_to_local = {q.x(), q.y(), q.z(), q.w()};
    out_transform->offset_local_to_remote = toC(t.offsetLocalToRemote);
    out_transform->update_error = t.updateError;
    return succeed();
  });
}

}  // extern "C"
