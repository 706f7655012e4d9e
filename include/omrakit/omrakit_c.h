/* OmraKit C API: a flat surface over the session for hosts in C#, Java/Kotlin (JNI), Swift and
 * Objective-C.
 *
 * Concepts
 * --------
 * Ownership. Every object is an opaque handle made by an omra_*_create function and released by
 * the matching omra_*_destroy, which accepts NULL. Strings and arrays passed in are copied before
 * the call returns; the caller keeps ownership of its memory. Strings and arrays handed to a
 * callback are valid only during that callback: copy what you keep. Strings are UTF-8 and
 * NUL-terminated.
 *
 * Coordinates. Metres; y up; right-handed; a 4x4 transform is 16 floats in column-major order
 * (elements 12, 13, 14 are the translation), as the AR platforms hand them out. Angles are radians
 * unless a field says degrees.
 *
 * Threading. Every entry point may be called from any thread. Session callbacks run on the kit's
 * main queue: a kit-owned thread unless the host installs its own with
 * omra_env_set_main_queue(). No session callback runs after omra_session_destroy() has returned
 * (it waits for one running on another thread), so the host may free its user data right after.
 * A callback must not destroy the session that called it.
 *
 * Errors. Every entry point returns an OmraStatus; 0 is success. No C++ exception crosses this
 * surface. Outputs come last and are named out_*; they are written only on success. After a
 * failure, omra_last_error() says what was wrong (on the thread that made the call).
 *
 * Logging. The kit never writes to standard output. Its lines go to the callback installed with
 * omra_set_log_callback(); without one, error lines go to standard error. Files are written only
 * where the configuration names them.
 *
 * Versions. Option structs start with struct_size: set it to sizeof the struct (the _INIT macros
 * do), so that a host built against an older header keeps working with a newer library.
 */
#ifndef OMRAKIT_OMRAKIT_C_H_
#define OMRAKIT_OMRAKIT_C_H_

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define OMRA_C_API __declspec(dllexport)
#else
#define OMRA_C_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Versions ----------------------------------------------------------------------------- */

#define OMRA_VERSION_MAJOR 0
#define OMRA_VERSION_MINOR 3
#define OMRA_VERSION_PATCH 6
/* One number that compares: major * 10000 + minor * 100 + patch. */
#define OMRA_VERSION_NUMBER \
  (OMRA_VERSION_MAJOR * 10000 + OMRA_VERSION_MINOR * 100 + OMRA_VERSION_PATCH)
#define OMRA_VERSION_STRING "v0.3.6"

/* ---- Status ------------------------------------------------------------------------------- */

typedef int32_t OmraStatus;
enum {
  OMRA_STATUS_SUCCESS = 0,
  OMRA_STATUS_INVALID_ARGUMENT = 1, /* a NULL pointer, a bad length or a value out of range */
  OMRA_STATUS_INVALID_HANDLE = 2,   /* not a live handle of the expected kind */
  OMRA_STATUS_NOT_INITIALIZED = 3,  /* the session has no map or localization session yet */
  OMRA_STATUS_CONFIGURATION = 4,    /* the configuration could not be loaded or is incomplete */
  OMRA_STATUS_INTERNAL = 5          /* an unexpected failure inside the kit; details in the log */
};

/* A short English text for a status; never NULL, static storage. */
OMRA_C_API const char* omra_status_string(OmraStatus status);

/* The kit's version text ("v0.3.6"); static storage. */
OMRA_C_API const char* omra_version(void);
/* The library's OMRA_VERSION_NUMBER, to compare with the header's. */
OMRA_C_API int32_t omra_version_number(void);

/* What went wrong in the most recent call on this thread that did not succeed, in English, naming
 * the argument or configuration key at fault; "" when the most recent call succeeded. Never NULL;
 * valid until the next call on this thread. */
OMRA_C_API const char* omra_last_error(void);

/* ---- Logging -------------------------------------------------------------------------------- */

typedef int32_t OmraLogLevel;
enum { OMRA_LOG_DEBUG = 0, OMRA_LOG_INFO = 1, OMRA_LOG_ERROR = 2 };

/* One log line, without its newline. Called on any of the kit's threads, possibly at once from
 * several; must not call into the kit. */
typedef void (*OmraLogFn)(void* user, OmraLogLevel level, const char* message);

/* Process-wide: lines at min_level or above go to fn. NULL restores the default (error lines to
 * standard error). */
OMRA_C_API OmraStatus omra_set_log_callback(OmraLogFn fn, void* user, OmraLogLevel min_level);

/* ---- Enumerations (raw values are stable) ------------------------------------------------- */

typedef int32_t OmraSessionMode;
enum { OMRA_SESSION_MODE_MAPPING = 0, OMRA_SESSION_MODE_LOCALIZATION = 1 };

typedef int32_t OmraMapStatus;
enum {
  OMRA_MAP_STATUS_INITIALIZED = 0,
  OMRA_MAP_STATUS_MAP_NOT_FOUND = 1,
  OMRA_MAP_STATUS_NETWORK_ERROR = 2,
  OMRA_MAP_STATUS_SERVER_ERROR = 4
  /* 3 and 5-9 are reserved and never raised by this kit. */
};

typedef int32_t OmraPlaneAlignment;
enum { OMRA_PLANE_HORIZONTAL = 0, OMRA_PLANE_VERTICAL = 1 };

/* ---- Value types --------------------------------------------------------------------------- */

typedef struct OmraVec3 {
  float x, y, z;
} OmraVec3;

typedef struct OmraQuaternion {
  float x, y, z, w; /* w is the scalar part */
} OmraQuaternion;

typedef struct OmraMapAsset {
  const char* asset_id;
  OmraVec3 position;  /* current session's frame */
  float orientation;  /* about the vertical axis, radians */
  float confidence;   /* -1 when set by the host; 0.5 when placed by relocalization */
  const char* matrix; /* optional transform text; NULL or "" when absent */
} OmraMapAsset;

typedef struct OmraMap {
  const char* user_id;
  const char* map_id;
  double latitude, longitude; /* degrees */
  double altitude;            /* metres */
  double horizontal_accuracy, vertical_accuracy;
} OmraMap;

typedef struct OmraDetectedObject {
  const char* name;
  float confidence;
  OmraVec3 center;
  float width, height, depth; /* metres */
  float orientation;          /* radians */
  int64_t id;
} OmraDetectedObject;

typedef struct OmraUnityMultiplayerTransform {
  OmraQuaternion rotation_remote_to_local;
  OmraVec3 offset_local_to_remote;
  float update_error; /* metres */
} OmraUnityMultiplayerTransform;

/* One hit of a hit test: the hit's world transform and its distance from the camera. */
typedef struct OmraHitTestResult {
  float world_transform[16];
  float distance;
} OmraHitTestResult;

/* Hit test against the frame's feature points. (x, y) is a normalized image point (0..1, origin
 * top-left). Write at most capacity results, nearest first, into out_results and return how many
 * were written. Called on the kit's queues, possibly after omra_session_update returned, for as
 * long as the frame is being processed: user must stay valid until the session is destroyed. */
typedef size_t (*OmraHitTestFn)(void* user, float x, float y, OmraHitTestResult* out_results,
                                size_t capacity);

typedef struct OmraFrame {
  double timestamp;           /* seconds */
  float camera_transform[16]; /* world_from_camera */
  OmraVec3 euler_angles;      /* radians: pitch, yaw, roll */
  /* Captured image, 8-bit BGRA. May be NULL (no scene understanding on this frame). */
  const uint8_t* image_bgra;
  int32_t image_width, image_height;
  size_t image_bytes_per_row;
  /* Raw feature points and their identifiers; both NULL when the frame has none. */
  const OmraVec3* feature_points;
  const uint64_t* feature_identifiers;
  size_t feature_count;
  OmraHitTestFn hit_test; /* may be NULL: no hits */
  void* hit_test_user;
} OmraFrame;

typedef struct OmraPlaneAnchor {
  const char* identifier; /* UUID text */
  float transform[16];    /* world_from_anchor */
  OmraPlaneAlignment alignment;
  OmraVec3 center, extent;           /* anchor frame */
  const OmraVec3* boundary_vertices; /* anchor frame; NULL when unknown */
  size_t boundary_vertex_count;
} OmraPlaneAnchor;

/* ---- Environment ---------------------------------------------------------------------------- */

/* The platform services a session uses: dispatch queues, HTTP, the record store, metrics,
 * device facts, location and the detector model. */
typedef struct OmraEnv OmraEnv;

/* Builds the default Linux environment from configuration: the JSON file at config_path (NULL:
 * $OMRA_CONFIG or ./omra.json when present) overridden by OMRA_* environment variables. */
OMRA_C_API OmraStatus omra_env_create(const char* config_path, OmraEnv** out_env);
/* The environment must outlive every session made with it. Accepts NULL. */
OMRA_C_API void omra_env_destroy(OmraEnv* env);

/* A host-supplied main queue: post(user, task, task_user) must arrange for task(task_user) to run
 * later, exactly once, on the host's main thread. */
typedef void (*OmraTaskFn)(void* task_user);
typedef void (*OmraPostFn)(void* user, OmraTaskFn task, void* task_user);
OMRA_C_API OmraStatus omra_env_set_main_queue(OmraEnv* env, OmraPostFn post, void* user);

/* ---- Settings (process-wide; any thread) ---------------------------------------------------- */

typedef struct OmraSettings {
  uint32_t struct_size;             /* sizeof(OmraSettings); omra_settings_get sets it */
  int64_t timeout_threshold;        /* default 60; informational */
  int32_t use_beta_algo;            /* 0 or 1; default 0: production endpoints */
  int64_t retrieve_assets_interval; /* seconds between best-transform polls; default 1 */
  int32_t build_heavy_map;          /* 0 or 1; default 0: no point clouds recorded */
} OmraSettings;

#define OMRA_SETTINGS_INIT \
  { .struct_size = sizeof(OmraSettings) }

/* omra_settings_set needs struct_size; omra_settings_get fills it in. */
OMRA_C_API OmraStatus omra_settings_get(OmraSettings* out_settings);
OMRA_C_API OmraStatus omra_settings_set(const OmraSettings* settings);

/* ---- Session -------------------------------------------------------------------------------- */

typedef struct OmraSession OmraSession;

/* Callbacks, all on the main queue. Arrays are valid only during the call. */
typedef void (*OmraAssetsFoundFn)(void* user, const OmraMapAsset* assets, size_t count);
typedef void (*OmraProgressFn)(void* user, int64_t progress);
typedef void (*OmraStatusFn)(void* user, OmraMapStatus status);
typedef void (*OmraObjectsDetectedFn)(void* user, const OmraDetectedObject* objects, size_t count);
typedef void (*OmraStoreResultFn)(void* user, int32_t stored);
typedef void (*OmraMapsFoundFn)(void* user, const OmraMap* maps, size_t count);

typedef struct OmraSessionOptions {
  uint32_t struct_size; /* sizeof(OmraSessionOptions) */
  OmraSessionMode mode;
  const char* user_id;
  const char* map_id;
  const char* developer_key;
  double screen_height, screen_width; /* points */
  OmraAssetsFoundFn assets_found;     /* each callback may be NULL */
  OmraProgressFn progress;
  OmraStatusFn status;
  OmraObjectsDetectedFn objects_detected;
  void* user; /* handed to every callback above */
} OmraSessionOptions;

/* OmraSessionOptions o = OMRA_SESSION_OPTIONS_INIT; (everything else zero) */
#define OMRA_SESSION_OPTIONS_INIT \
  { .struct_size = sizeof(OmraSessionOptions) }

/* Starts a session: opens a map (mapping) or a localization session against map_id on the back
 * end; the status callback reports the outcome. */
OMRA_C_API OmraStatus omra_session_create(OmraEnv* env, const OmraSessionOptions* options,
                                          OmraSession** out_session);
/* Disposes the session if needed and releases it. Accepts NULL. */
OMRA_C_API void omra_session_destroy(OmraSession* session);

/* Hands one camera frame to the session; never waits for network or storage. */
OMRA_C_API OmraStatus omra_session_update(OmraSession* session, const OmraFrame* frame);

OMRA_C_API OmraStatus omra_session_plane_added(OmraSession* session, const OmraPlaneAnchor* anchor);
OMRA_C_API OmraStatus omra_session_plane_updated(OmraSession* session,
                                                 const OmraPlaneAnchor* anchor);
OMRA_C_API OmraStatus omra_session_plane_removed(OmraSession* session,
                                                 const OmraPlaneAnchor* anchor);

/* Stores the placements of count assets against the map. *out_sent tells whether the request was
 * sent; callback (may be NULL) later tells whether the back end stored them. */
OMRA_C_API OmraStatus omra_session_store_placement(OmraSession* session, const OmraMapAsset* assets,
                                                   size_t count, OmraStoreResultFn callback,
                                                   void* user, int32_t* out_sent);

/* Lists maps near a position; user_id may be NULL. OMRA_STATUS_NOT_INITIALIZED before the
 * session is initialized. */
OMRA_C_API OmraStatus omra_session_list_nearby_maps(OmraSession* session, const char* user_id,
                                                    double longitude, double latitude,
                                                    double longitude_delta, double latitude_delta,
                                                    OmraMapsFoundFn callback, void* user);

/* Ends the session's periodic work; final. */
OMRA_C_API OmraStatus omra_session_dispose(OmraSession* session);

OMRA_C_API OmraStatus omra_session_mode(const OmraSession* session, OmraSessionMode* out_mode);

/* Copies the current session identifier (map UUID in mapping mode, localization session UUID in
 * localization mode) into buffer. *out_length receives the text's length without the NUL (0 when
 * none yet); OMRA_STATUS_INVALID_ARGUMENT when capacity is too small for it and the NUL. */
OMRA_C_API OmraStatus omra_session_current_uuid(const OmraSession* session, char* buffer,
                                                size_t capacity, size_t* out_length);

/* Frames per second during the last measuring second: handed in, persisted, and processed by
 * scene understanding. */
OMRA_C_API OmraStatus omra_session_fps(const OmraSession* session, float* out_input,
                                       float* out_persisted, float* out_scene);

/* ---- Multiplayer ---------------------------------------------------------------------------- */

/* The transform carrying a remote device's coordinates into the local ones, from two points A and
 * B seen by both. rotation_remote may be NULL: the rotation about y is then estimated. */
OMRA_C_API OmraStatus omra_unity_multiplayer_sync(OmraVec3 local_a, OmraVec3 local_b,
                                                  OmraVec3 remote_a, OmraVec3 remote_b,
                                                  const OmraQuaternion* rotation_remote,
                                                  OmraUnityMultiplayerTransform* out_transform);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* OMRAKIT_OMRAKIT_C_H_ */
