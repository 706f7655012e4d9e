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

// Runs body, turning any escaping exception into a status.
template <typename F>
OmraStatus guarded(F&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return OMRA_STATUS_INTERNAL;
  } catch (...) {
    return OMRA_STATUS_INTERNAL;
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

bool convertPlane(const OmraPlaneAnchor* in, ArPlaneAnchor* out) {
  if (!in || !in->identifier) return false;
  if (in->alignment != OMRA_PLANE_HORIZONTAL && in->alignment != OMRA_PLANE_VERTICAL) return false;
  if (in->boundary_vertex_count > 0 && !in->boundary_vertices) return false;
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
  return true;
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

bool convertFrame(const OmraFrame* in, ArFrame* out) {
  if (!in) return false;
  if (in->feature_count > 0 && (!in->feature_points || !in->feature_identifiers)) return false;
  if (in->image_bgra) {
    if (in->image_width <= 0 || in->image_height <= 0) return false;
    const size_t minRow = static_cast<size_t>(in->image_width) * 4;
    if (in->image_bytes_per_row < minRow) return false;
    // Guard the copy below against sizes that overflow.
    if (in->image_bytes_per_row > (SIZE_MAX / static_cast<size_t>(in->image_height))) return false;
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
  return true;
}

bool convertAssets(const OmraMapAsset* assets, size_t count, std::vector<MapAsset>* out) {
  if (count > 0 && !assets) return false;
  out->reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const OmraMapAsset& a = assets[i];
    if (!a.asset_id) return false;
    MapAsset asset(a.asset_id, toVector3(a.position), a.orientation);
    asset.confidence = a.confidence;
    if (a.matrix) asset.matrix = a.matrix;
    out->push_back(std::move(asset));
  }
  return true;
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
using omra::DetectedObject;
using omra::Env;
using omra::EnvLookup;
using omra::Map;
using omra::MapAsset;
using omra::MapStatus;
using omra::Quaternion;
using omra::SessionMode;
using omra::UnityMultiplayerTransform;
using omra::convertAssets;
using omra::convertFrame;
using omra::convertPlane;
using omra::envs;
using omra::guarded;
using omra::HostMainQueue;
using omra::sessions;
using omra::toC;
using omra::toVector3;
using omra::finite3;
using SessionCallbacks = omra::OmraSession;

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

OmraStatus omra_env_create(const char* config_path, OmraEnv** out_env) {
  if (!out_env) return OMRA_STATUS_INVALID_ARGUMENT;
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
    if (!config) return OMRA_STATUS_CONFIGURATION;
    std::optional<Env> env = omra::makeDefaultEnv(*config, &error);
    if (!env) return OMRA_STATUS_CONFIGURATION;
    auto handle = std::make_unique<OmraEnv>();
    handle->env = std::move(*env);
    envs().add(handle.get());
    *out_env = handle.release();
    return OMRA_STATUS_SUCCESS;
  });
}

void omra_env_destroy(OmraEnv* env) {
  if (!env || !envs().remove(env)) return;
  try {
    delete env;
  } catch (...) {
  }
}

OmraStatus omra_env_set_main_queue(OmraEnv* env, OmraPostFn post, void* user) {
  if (!post) return OMRA_STATUS_INVALID_ARGUMENT;
  if (!env || !envs().contains(env)) return OMRA_STATUS_INVALID_HANDLE;
  return guarded([&]() -> OmraStatus {
    env->env.dispatcher->installMainQueue(std::make_shared<HostMainQueue>(post, user));
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_settings_get(OmraSettings* out_settings) {
  if (!out_settings) return OMRA_STATUS_INVALID_ARGUMENT;
  out_settings->timeout_threshold = omra::OmraSettings::TIMEOUT_THRESHOLD.load();
  out_settings->use_beta_algo = omra::OmraSettings::USE_BETA_ALGO.load() ? 1 : 0;
  out_settings->retrieve_assets_interval = omra::OmraSettings::RETRIEVE_ASSETS_INTERVAL.load();
  out_settings->build_heavy_map = omra::OmraSettings::BUILD_HEAVY_MAP.load() ? 1 : 0;
  return OMRA_STATUS_SUCCESS;
}

OmraStatus omra_settings_set(const OmraSettings* settings) {
  if (!settings) return OMRA_STATUS_INVALID_ARGUMENT;
  if (settings->retrieve_assets_interval < 0) return OMRA_STATUS_INVALID_ARGUMENT;
  omra::OmraSettings::TIMEOUT_THRESHOLD = settings->timeout_threshold;
  omra::OmraSettings::USE_BETA_ALGO = settings->use_beta_algo != 0;
  omra::OmraSettings::RETRIEVE_ASSETS_INTERVAL = settings->retrieve_assets_interval;
  omra::OmraSettings::BUILD_HEAVY_MAP = settings->build_heavy_map != 0;
  return OMRA_STATUS_SUCCESS;
}

OmraStatus omra_session_create(OmraEnv* env, const OmraSessionOptions* options,
                               OmraSession** out_session) {
  if (!options || !out_session || !options->user_id || !options->map_id ||
      !options->developer_key) {
    return OMRA_STATUS_INVALID_ARGUMENT;
  }
  if (options->mode != OMRA_SESSION_MODE_MAPPING &&
      options->mode != OMRA_SESSION_MODE_LOCALIZATION) {
    return OMRA_STATUS_INVALID_ARGUMENT;
  }
  if (!std::isfinite(options->screen_height) || !std::isfinite(options->screen_width) ||
      options->screen_height <= 0 || options->screen_width <= 0) {
    return OMRA_STATUS_INVALID_ARGUMENT;
  }
  if (!env || !envs().contains(env)) return OMRA_STATUS_INVALID_HANDLE;
  // A session cannot start without a host application identifier; refuse it here rather than
  // letting the kit stop the process.
  if (!env->env.device || !env->env.device->bundleIdentifier()) return OMRA_STATUS_CONFIGURATION;

  return guarded([&]() -> OmraStatus {
    const OmraSessionOptions o = *options;  // the callbacks and user pointer outlive this call
    SessionCallbacks::AssetsFoundCallback assetsFound;
    if (o.assets_found) {
      assetsFound = [fn = o.assets_found, user = o.user](std::vector<MapAsset> assets) {
        std::vector<OmraMapAsset> out;
        out.reserve(assets.size());
        for (const MapAsset& a : assets) {
          out.push_back({a.assetID.c_str(), toC(a.position), a.orientation, a.confidence,
                         a.matrix.c_str()});
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
    auto handle = std::make_unique<::OmraSession>();
    handle->session = std::make_unique<omra::OmraSession>(
        env->env,
        o.mode == OMRA_SESSION_MODE_MAPPING ? SessionMode::mapping : SessionMode::localization,
        o.user_id, o.map_id, o.developer_key, o.screen_height, o.screen_width,
        std::move(assetsFound), std::move(progress), std::move(status), std::move(detected));
    sessions().add(handle.get());
    *out_session = handle.release();
    return OMRA_STATUS_SUCCESS;
  });
}

void omra_session_destroy(OmraSession* session) {
  if (!session || !sessions().remove(session)) return;
  try {
    delete session;
  } catch (...) {
  }
}

#define OMRA_CHECK_SESSION(s) \
  if (!(s) || !sessions().contains(s)) return OMRA_STATUS_INVALID_HANDLE

OmraStatus omra_session_update(OmraSession* session, const OmraFrame* frame) {
  if (!frame) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    ArFrame f;
    if (!convertFrame(frame, &f)) return OMRA_STATUS_INVALID_ARGUMENT;
    session->session->update(f);
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_plane_added(OmraSession* session, const OmraPlaneAnchor* anchor) {
  if (!anchor) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    ArPlaneAnchor plane;
    if (!convertPlane(anchor, &plane)) return OMRA_STATUS_INVALID_ARGUMENT;
    session->session->sessionDidAdd({AnyArAnchor(plane)});
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_plane_updated(OmraSession* session, const OmraPlaneAnchor* anchor) {
  if (!anchor) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    ArPlaneAnchor plane;
    if (!convertPlane(anchor, &plane)) return OMRA_STATUS_INVALID_ARGUMENT;
    session->session->sessionDidUpdate({AnyArAnchor(plane)});
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_plane_removed(OmraSession* session, const OmraPlaneAnchor* anchor) {
  if (!anchor) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    ArPlaneAnchor plane;
    if (!convertPlane(anchor, &plane)) return OMRA_STATUS_INVALID_ARGUMENT;
    session->session->sessionDidRemove({AnyArAnchor(plane)});
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_store_placement(OmraSession* session, const OmraMapAsset* assets,
                                        size_t count, OmraStoreResultFn callback, void* user,
                                        int32_t* out_sent) {
  if (!out_sent) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    std::vector<MapAsset> list;
    if (!convertAssets(assets, count, &list)) return OMRA_STATUS_INVALID_ARGUMENT;
    SessionCallbacks::StoreCallback done = [callback, user](bool stored) {
      if (callback) callback(user, stored ? 1 : 0);
    };
    *out_sent = session->session->storePlacement(list, std::move(done)) ? 1 : 0;
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_list_nearby_maps(OmraSession* session, const char* user_id,
                                         double longitude, double latitude,
                                         double longitude_delta, double latitude_delta,
                                         OmraMapsFoundFn callback, void* user) {
  if (!callback || !std::isfinite(longitude) || !std::isfinite(latitude) ||
      !std::isfinite(longitude_delta) || !std::isfinite(latitude_delta)) {
    return OMRA_STATUS_INVALID_ARGUMENT;
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
    return sent ? OMRA_STATUS_SUCCESS : OMRA_STATUS_NOT_INITIALIZED;
  });
}

OmraStatus omra_session_dispose(OmraSession* session) {
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    session->session->dispose();
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_mode(const OmraSession* session, OmraSessionMode* out_mode) {
  if (!out_mode) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    *out_mode = static_cast<OmraSessionMode>(session->session->omraSessionMode());
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_current_uuid(const OmraSession* session, char* buffer, size_t capacity,
                                     size_t* out_length) {
  if (!out_length || (capacity > 0 && !buffer)) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    std::string uuid = session->session->currentSessionUUID().value_or("");
    if (uuid.size() + 1 > capacity) {
      if (uuid.empty()) {
        *out_length = 0;
        return OMRA_STATUS_SUCCESS;
      }
      return OMRA_STATUS_INVALID_ARGUMENT;
    }
    std::memcpy(buffer, uuid.c_str(), uuid.size() + 1);
    *out_length = uuid.size();
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_session_fps(const OmraSession* session, float* out_input, float* out_persisted,
                            float* out_scene) {
  if (!out_input || !out_persisted || !out_scene) return OMRA_STATUS_INVALID_ARGUMENT;
  OMRA_CHECK_SESSION(session);
  return guarded([&]() -> OmraStatus {
    *out_input = session->session->fpsInput();
    *out_persisted = session->session->fpsDataProcess1();
    *out_scene = session->session->fpsDataProcess2();
    return OMRA_STATUS_SUCCESS;
  });
}

OmraStatus omra_unity_multiplayer_sync(OmraVec3 local_a, OmraVec3 local_b, OmraVec3 remote_a,
                                       OmraVec3 remote_b, const OmraQuaternion* rotation_remote,
                                       OmraUnityMultiplayerTransform* out_transform) {
  if (!out_transform) return OMRA_STATUS_INVALID_ARGUMENT;
  if (!finite3(local_a) || !finite3(local_b) || !finite3(remote_a) || !finite3(remote_b)) {
    return OMRA_STATUS_INVALID_ARGUMENT;
  }
  return guarded([&]() -> OmraStatus {
    std::optional<Quaternion> rotation;
    if (rotation_remote) {
      rotation = Quaternion(rotation_remote->x, rotation_remote->y, rotation_remote->z,
                            rotation_remote->w);
    }
    UnityMultiplayerTransform t =
        omra::OmraSession::unityMultiplayerSync(toVector3(local_a), toVector3(local_b),
                                                toVector3(remote_a), toVector3(remote_b), rotation);
    const Quaternion& q = t.rotationRemoteToLocal;
    out_transform->rotation_remote_to_local = {q.x(), q.y(), q.z(), q.w()};
    out_transform->offset_local_to_remote = toC(t.offsetLocalToRemote);
    out_transform->update_error = t.updateError;
    return OMRA_STATUS_SUCCESS;
  });
}

}  // extern "C"
