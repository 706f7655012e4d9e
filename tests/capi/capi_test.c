/* Drives a whole mapping session through the C API against the reference back end on loopback,
 * and checks that bad arguments give a status instead of a crash. Plain C on purpose: this is what
 * a C#, JNI or Swift binding sees. */
#include <math.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "omrakit/omrakit_c.h"
#include "tests/capi/server_fixture.h"

static int failures = 0;
static int checks = 0;

#define CHECK(cond)                                                            \
  do {                                                                         \
    ++checks;                                                                  \
    if (!(cond)) {                                                             \
      ++failures;                                                              \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                                          \
  } while (0)

#define CHECK_STATUS(expr, expected)                                                               \
  do {                                                                                             \
    OmraStatus s_ = (expr);                                                                        \
    ++checks;                                                                                      \
    if (s_ != (expected)) {                                                                        \
      ++failures;                                                                                  \
      fprintf(stderr, "%s:%d: %s gave %d (%s), expected %d\n", __FILE__, __LINE__, #expr, (int)s_, \
              omra_status_string(s_), (int)(expected));                                            \
    }                                                                                              \
  } while (0)

typedef struct Observed {
  atomic_int status;       /* -1 until a status arrives */
  atomic_int store_result; /* -1 until the store callback runs */
  atomic_int maps_callbacks;
} Observed;

static void on_status(void* user, OmraMapStatus status) {
  atomic_store(&((Observed*)user)->status, (int)status);
}

static void on_stored(void* user, int32_t stored) {
  atomic_store(&((Observed*)user)->store_result, (int)stored);
}

static void on_maps(void* user, const OmraMap* maps, size_t count) {
  (void)maps;
  (void)count;
  atomic_fetch_add(&((Observed*)user)->maps_callbacks, 1);
}

static void sleep_ms(long ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, NULL);
}

/* Waits up to 10 s for *value to leave `initial`. */
static int wait_change(atomic_int* value, int initial) {
  for (int i = 0; i < 1000; ++i) {
    if (atomic_load(value) != initial) return 1;
    sleep_ms(10);
  }
  return 0;
}

static void identity(float m[16]) {
  memset(m, 0, 16 * sizeof(float));
  m[0] = m[5] = m[10] = m[15] = 1.0f;
}

/* ---- A host main queue the test drains itself: callbacks run only inside drain_main(). ---- */

typedef struct PostedTask {
  OmraTaskFn fn;
  void* user;
  struct PostedTask* next;
} PostedTask;

static pthread_mutex_t g_queue_mutex = PTHREAD_MUTEX_INITIALIZER;
static PostedTask* g_queue_head = NULL;
static PostedTask* g_queue_tail = NULL;
static atomic_int g_queue_posted;
static int g_draining = 0; /* test thread only */

static void host_post(void* user, OmraTaskFn fn, void* task_user) {
  (void)user;
  PostedTask* t = malloc(sizeof *t);
  t->fn = fn;
  t->user = task_user;
  t->next = NULL;
  pthread_mutex_lock(&g_queue_mutex);
  if (g_queue_tail)
    g_queue_tail->next = t;
  else
    g_queue_head = t;
  g_queue_tail = t;
  pthread_mutex_unlock(&g_queue_mutex);
  atomic_fetch_add(&g_queue_posted, 1);
}

/* Runs every task posted so far (and those they post). */
static void drain_main(void) {
  g_draining = 1;
  for (;;) {
    pthread_mutex_lock(&g_queue_mutex);
    PostedTask* t = g_queue_head;
    if (t) {
      g_queue_head = t->next;
      if (!g_queue_head) g_queue_tail = NULL;
    }
    pthread_mutex_unlock(&g_queue_mutex);
    if (!t) break;
    t->fn(t->user);
    free(t);
  }
  g_draining = 0;
}

/* Drains for ms milliseconds, or until *value differs from initial when value is not NULL. */
static int drain_until(atomic_int* value, int initial, long ms) {
  for (long waited = 0; waited <= ms; waited += 10) {
    drain_main();
    if (value && atomic_load(value) != initial) return 1;
    sleep_ms(10);
  }
  return value == NULL;
}

typedef struct HostState {
  atomic_int status;
  atomic_int progress_calls;
  int64_t progress_values[8];
  atomic_int off_main; /* callbacks that ran outside drain_main() */
} HostState;

static atomic_int g_calls_after_destroy;
static atomic_int g_destroyed;

static void note_call(HostState* h) {
  if (atomic_load(&g_destroyed)) atomic_fetch_add(&g_calls_after_destroy, 1);
  if (!g_draining) atomic_fetch_add(&h->off_main, 1);
}

static void host_status(void* user, OmraMapStatus status) {
  HostState* h = user;
  note_call(h);
  atomic_store(&h->status, (int)status);
}

static void host_progress(void* user, int64_t progress) {
  HostState* h = user;
  note_call(h);
  int i = atomic_fetch_add(&h->progress_calls, 1);
  if (i < 8) h->progress_values[i] = progress;
}

static void host_assets(void* user, const OmraMapAsset* assets, size_t count) {
  (void)assets;
  (void)count;
  note_call(user);
}

static void host_objects(void* user, const OmraDetectedObject* objects, size_t count) {
  (void)objects;
  (void)count;
  note_call(user);
}

static HostState* new_host_state(void) {
  HostState* h = calloc(1, sizeof *h);
  atomic_init(&h->status, -1);
  atomic_init(&h->progress_calls, 0);
  atomic_init(&h->off_main, 0);
  return h;
}

/* Every required field set, no callbacks. */
static OmraSessionOptions plain_options(OmraSessionMode mode) {
  OmraSessionOptions o = OMRA_SESSION_OPTIONS_INIT;
  o.mode = mode;
  o.user_id = "c-user";
  o.map_id = "c-map";
  o.developer_key = "c-developer-key";
  o.screen_width = 390;
  o.screen_height = 844;
  return o;
}

static OmraSessionOptions host_options(OmraSessionMode mode, HostState* h) {
  OmraSessionOptions o = plain_options(mode);
  o.status = host_status;
  o.progress = host_progress;
  o.assets_found = host_assets;
  o.objects_detected = host_objects;
  o.user = h;
  return o;
}

static OmraPlaneAnchor vertical_plane(const char* id) {
  OmraPlaneAnchor p;
  memset(&p, 0, sizeof p);
  p.identifier = id;
  identity(p.transform);
  p.alignment = OMRA_PLANE_VERTICAL;
  p.extent = (OmraVec3){2, 0, 2};
  return p;
}

/* Progress arrives on the main queue, not on the thread of the plane event, and the anchor path
 * caps vertical planes at two. */
static void check_progress_on_main_queue_and_capped(OmraEnv* env) {
  HostState* h = new_host_state();
  OmraSessionOptions o = host_options(OMRA_SESSION_MODE_MAPPING, h);
  OmraSession* session = NULL;
  CHECK_STATUS(omra_session_create(env, &o, &session), OMRA_STATUS_SUCCESS);
  if (!session) return;
  CHECK(drain_until(&h->status, -1, 10000));
  CHECK(atomic_load(&h->status) == OMRA_MAP_STATUS_INITIALIZED);
  const char* ids[3] = {"6B1A0C9E-1111-4C55-9E39-3B8F1D2F0101",
                        "6B1A0C9E-1111-4C55-9E39-3B8F1D2F0102",
                        "6B1A0C9E-1111-4C55-9E39-3B8F1D2F0103"};
  for (int i = 0; i < 3; ++i) {
    OmraPlaneAnchor p = vertical_plane(ids[i]);
    CHECK_STATUS(omra_session_plane_added(session, &p), OMRA_STATUS_SUCCESS);
  }
  CHECK(atomic_load(&h->progress_calls) == 0); /* posted, not run on this thread */
  drain_until(NULL, 0, 200);
  CHECK(atomic_load(&h->progress_calls) == 2);
  CHECK(h->progress_values[0] == 1 && h->progress_values[1] == 2);
  CHECK(atomic_load(&h->off_main) == 0);
  omra_session_destroy(session);
  free(h);
}

/* The host frees its state right after destroying the session; replies still in flight and
 * callbacks already posted must not reach it (under AddressSanitizer a late call is a
 * use-after-free). */
static void check_no_callback_after_destroy(OmraEnv* env) {
  const OmraSessionMode modes[2] = {OMRA_SESSION_MODE_MAPPING, OMRA_SESSION_MODE_LOCALIZATION};
  for (int m = 0; m < 2; ++m) {
    atomic_store(&g_destroyed, 0);
    HostState* h = new_host_state();
    OmraSessionOptions o = host_options(modes[m], h);
    const int posted = atomic_load(&g_queue_posted);
    OmraSession* session = NULL;
    CHECK_STATUS(omra_session_create(env, &o, &session), OMRA_STATUS_SUCCESS);
    if (!session) continue;
    /* Wait, without draining, for the create reply to be posted; add a counted plane too. */
    for (int i = 0; i < 500 && atomic_load(&g_queue_posted) == posted; ++i) sleep_ms(10);
    CHECK(atomic_load(&g_queue_posted) > posted);
    OmraPlaneAnchor p = vertical_plane("6B1A0C9E-1111-4C55-9E39-3B8F1D2F0201");
    CHECK_STATUS(omra_session_plane_added(session, &p), OMRA_STATUS_SUCCESS);
    omra_session_destroy(session);
    atomic_store(&g_destroyed, 1);
    free(h);
    drain_until(NULL, 0, 300);
    CHECK(atomic_load(&g_calls_after_destroy) == 0);
  }
  atomic_store(&g_destroyed, 0);
}

/* ---- Errors, logging, versions ------------------------------------------------------------- */

typedef struct LogSeen {
  atomic_int lines;
  atomic_int errors;
  char last_error[512];
} LogSeen;

static LogSeen g_log;

static void on_log(void* user, OmraLogLevel level, const char* message) {
  LogSeen* seen = user;
  atomic_fetch_add(&seen->lines, 1);
  if (level == OMRA_LOG_ERROR) {
    atomic_fetch_add(&seen->errors, 1);
    snprintf(seen->last_error, sizeof seen->last_error, "%s", message);
  }
}

/* The status is the expected one and omra_last_error() names the fault. */
#define CHECK_ERROR(expr, expected, needle)                                                  \
  do {                                                                                       \
    CHECK_STATUS(expr, expected);                                                            \
    ++checks;                                                                                \
    if (!strstr(omra_last_error(), needle)) {                                                \
      ++failures;                                                                            \
      fprintf(stderr, "%s:%d: last error \"%s\" does not name \"%s\"\n", __FILE__, __LINE__, \
              omra_last_error(), needle);                                                    \
    }                                                                                        \
  } while (0)

static void check_error_messages(OmraEnv* env) {
  OmraSessionOptions options = plain_options(OMRA_SESSION_MODE_MAPPING);
  OmraSession* session = NULL;

  OmraSessionOptions unsized = options;
  unsized.struct_size = 0;
  CHECK_ERROR(omra_session_create(env, &unsized, &session), OMRA_STATUS_INVALID_ARGUMENT,
              "struct_size");
  OmraSessionOptions no_user = options;
  no_user.user_id = NULL;
  CHECK_ERROR(omra_session_create(env, &no_user, &session), OMRA_STATUS_INVALID_ARGUMENT,
              "options->user_id");
  OmraSessionOptions bad_mode = options;
  bad_mode.mode = 7;
  CHECK_ERROR(omra_session_create(env, &bad_mode, &session), OMRA_STATUS_INVALID_ARGUMENT,
              "options->mode 7");
  CHECK_ERROR(omra_session_create(NULL, &options, &session), OMRA_STATUS_INVALID_HANDLE,
              "env is not a live OmraEnv");
  CHECK_ERROR(omra_session_dispose(NULL), OMRA_STATUS_INVALID_HANDLE, "session");
  OmraSettings settings;
  memset(&settings, 0, sizeof settings);
  CHECK_ERROR(omra_settings_set(&settings), OMRA_STATUS_INVALID_ARGUMENT, "struct_size");
  CHECK_ERROR(omra_set_log_callback(on_log, NULL, 9), OMRA_STATUS_INVALID_ARGUMENT, "min_level 9");

  CHECK_STATUS(omra_session_create(env, &options, &session), OMRA_STATUS_SUCCESS);
  CHECK(strcmp(omra_last_error(), "") == 0); /* a success clears it */
  if (session) {
    OmraPlaneAnchor plane = vertical_plane("6B1A0C9E-1111-4C55-9E39-3B8F1D2F0301");
    plane.alignment = 9;
    CHECK_ERROR(omra_session_plane_added(session, &plane), OMRA_STATUS_INVALID_ARGUMENT,
                "anchor->alignment 9");
    OmraFrame frame;
    memset(&frame, 0, sizeof frame);
    frame.feature_count = 4;
    CHECK_ERROR(omra_session_update(session, &frame), OMRA_STATUS_INVALID_ARGUMENT,
                "frame->feature_count is 4");
    OmraMapAsset nameless = {NULL, {0, 0, 0}, 0, -1, NULL};
    int32_t sent = 0;
    CHECK_ERROR(omra_session_store_placement(session, &nameless, 1, NULL, NULL, &sent),
                OMRA_STATUS_INVALID_ARGUMENT, "assets[0].asset_id");
    omra_session_destroy(session);
  }
}

/* Configuration faults: a message naming the key (and the log callback hears it); no bundle
 * identifier; nothing on standard output and no file in the working folder. */
static void check_configuration_faults(void) {
  char folder[] = "/tmp/omra-capi-XXXXXX";
  CHECK(mkdtemp(folder) != NULL);
  char cwd[1024];
  CHECK(getcwd(cwd, sizeof cwd) != NULL);
  CHECK(chdir(folder) == 0);
  fflush(stdout);
  int saved_stdout = dup(1);
  FILE* captured = tmpfile();
  dup2(fileno(captured), 1);

  atomic_init(&g_log.lines, 0);
  atomic_init(&g_log.errors, 0);
  CHECK_STATUS(omra_set_log_callback(on_log, &g_log, OMRA_LOG_INFO), OMRA_STATUS_SUCCESS);
  FILE* config = fopen("misspelt.json", "w");
  fputs("{\"mapsHots\": \"http://127.0.0.1:1\"}", config);
  fclose(config);
  OmraEnv* env = NULL;
  CHECK_ERROR(omra_env_create("misspelt.json", &env), OMRA_STATUS_CONFIGURATION, "mapsHots");
  CHECK(env == NULL);
  CHECK(atomic_load(&g_log.errors) == 1);
  CHECK(strstr(g_log.last_error, "mapsHots") != NULL);
  remove("misspelt.json");

  /* Defaults otherwise (the record store aside): no file appears here. */
  unsetenv("OMRA_METRICS_SINK");
  unsetenv("OMRA_BUNDLE_ID");
  CHECK_STATUS(omra_env_create(NULL, &env), OMRA_STATUS_SUCCESS);
  OmraSessionOptions options = plain_options(OMRA_SESSION_MODE_MAPPING);
  OmraSession* session = NULL;
  CHECK_ERROR(omra_session_create(env, &options, &session), OMRA_STATUS_CONFIGURATION,
              "bundleIdentifier");
  omra_env_destroy(env);
  setenv("OMRA_METRICS_SINK", "none", 1);
  setenv("OMRA_BUNDLE_ID", "com.example.capi", 1);
  CHECK_STATUS(omra_set_log_callback(NULL, NULL, OMRA_LOG_DEBUG), OMRA_STATUS_SUCCESS);

  fflush(stdout);
  dup2(saved_stdout, 1);
  close(saved_stdout);
  CHECK(fseek(captured, 0, SEEK_END) == 0 && ftell(captured) == 0);
  fclose(captured);
  CHECK(rmdir(folder) == 0); /* fails when the kit left a file behind */
  CHECK(chdir(cwd) == 0);
}

static void check_bad_arguments(OmraEnv* env) {
  OmraSession* session = NULL;
  OmraSessionOptions options = OMRA_SESSION_OPTIONS_INIT;
  /* NULL everywhere. */
  CHECK_STATUS(omra_env_create(NULL, NULL), OMRA_STATUS_INVALID_ARGUMENT);
  CHECK_STATUS(omra_session_create(env, NULL, &session), OMRA_STATUS_INVALID_ARGUMENT);
  CHECK_STATUS(omra_session_create(env, &options, &session), OMRA_STATUS_INVALID_ARGUMENT);
  options = plain_options(OMRA_SESSION_MODE_MAPPING);
  CHECK_STATUS(omra_session_create((OmraEnv*)&options, &options, &session),
               OMRA_STATUS_INVALID_HANDLE);
  CHECK(session == NULL);

  /* A pointer that is not a session is refused without being read. */
  OmraSession* fake = (OmraSession*)&options;
  OmraFrame frame;
  memset(&frame, 0, sizeof frame);
  CHECK_STATUS(omra_session_update(fake, &frame), OMRA_STATUS_INVALID_HANDLE);
  CHECK_STATUS(omra_session_update(NULL, &frame), OMRA_STATUS_INVALID_HANDLE);
  CHECK_STATUS(omra_session_dispose(fake), OMRA_STATUS_INVALID_HANDLE);
  int32_t sent = -1;
  CHECK_STATUS(omra_session_store_placement(fake, NULL, 0, NULL, NULL, &sent),
               OMRA_STATUS_INVALID_HANDLE);
  CHECK_STATUS(omra_settings_get(NULL), OMRA_STATUS_INVALID_ARGUMENT);
  CHECK_STATUS(omra_unity_multiplayer_sync((OmraVec3){0, 0, 0}, (OmraVec3){1, 0, 0},
                                           (OmraVec3){0, 0, 0}, (OmraVec3){1, 0, 0}, NULL, NULL),
               OMRA_STATUS_INVALID_ARGUMENT);
  omra_session_destroy(NULL);
  omra_session_destroy(fake); /* not a live handle: ignored */
  omra_env_destroy(NULL);
}

static void check_multiplayer(void) {
  /* The remote frame is the local one turned by +90 degrees about y. */
  OmraUnityMultiplayerTransform t;
  CHECK_STATUS(omra_unity_multiplayer_sync((OmraVec3){0, 0, -1}, (OmraVec3){0, 0, 0},
                                           (OmraVec3){1, 0, 0}, (OmraVec3){0, 0, 0}, NULL, &t),
               OMRA_STATUS_SUCCESS);
  CHECK(fabsf(t.rotation_remote_to_local.y - sinf(3.1415927f / 4)) < 1e-5f);
  CHECK(fabsf(t.update_error) < 1e-5f);
}

static void run_mapping_session(OmraEnv* env) {
  Observed seen;
  atomic_init(&seen.status, -1);
  atomic_init(&seen.store_result, -1);
  atomic_init(&seen.maps_callbacks, 0);

  OmraSessionOptions options = plain_options(OMRA_SESSION_MODE_MAPPING);
  options.status = on_status;
  options.user = &seen;

  OmraSession* session = NULL;
  CHECK_STATUS(omra_session_create(env, &options, &session), OMRA_STATUS_SUCCESS);
  if (!session) return;
  OmraSessionMode mode = -1;
  CHECK_STATUS(omra_session_mode(session, &mode), OMRA_STATUS_SUCCESS);
  CHECK(mode == OMRA_SESSION_MODE_MAPPING);

  CHECK(wait_change(&seen.status, -1));
  CHECK(atomic_load(&seen.status) == OMRA_MAP_STATUS_INITIALIZED);

  char uuid[64];
  size_t length = 0;
  CHECK_STATUS(omra_session_current_uuid(session, uuid, sizeof uuid, &length), OMRA_STATUS_SUCCESS);
  CHECK(length == 36);
  CHECK_STATUS(omra_session_current_uuid(session, uuid, 8, &length), OMRA_STATUS_INVALID_ARGUMENT);

  /* A short walk with a few feature points, and one floor plane. */
  OmraVec3 points[3] = {{0.1f, 0, -1}, {0.2f, 0.1f, -1.2f}, {-0.3f, 0, -0.9f}};
  uint64_t ids[3] = {11, 12, 13};
  for (int i = 0; i < 30; ++i) {
    OmraFrame frame;
    memset(&frame, 0, sizeof frame);
    frame.timestamp = i / 60.0;
    identity(frame.camera_transform);
    frame.camera_transform[12] = 0.01f * (float)i;
    frame.euler_angles.y = 0.02f * (float)i;
    frame.feature_points = points;
    frame.feature_identifiers = ids;
    frame.feature_count = 3;
    CHECK_STATUS(omra_session_update(session, &frame), OMRA_STATUS_SUCCESS);
    sleep_ms(2);
  }

  OmraPlaneAnchor plane;
  memset(&plane, 0, sizeof plane);
  plane.identifier = "6B1A0C9E-1111-4C55-9E39-3B8F1D2F0001";
  identity(plane.transform);
  plane.alignment = OMRA_PLANE_HORIZONTAL;
  plane.extent = (OmraVec3){2, 0, 3};
  CHECK_STATUS(omra_session_plane_added(session, &plane), OMRA_STATUS_SUCCESS);
  CHECK_STATUS(omra_session_plane_updated(session, &plane), OMRA_STATUS_SUCCESS);
  plane.alignment = 9;
  CHECK_STATUS(omra_session_plane_updated(session, &plane), OMRA_STATUS_INVALID_ARGUMENT);

  OmraMapAsset assets[2] = {
      {"chair-1", {1, 0, -2}, 0.5f, -1, NULL},
      {"lamp-2", {-1, 0.5f, -3}, 1.0f, -1, ""},
  };
  int32_t sent = 0;
  CHECK_STATUS(omra_session_store_placement(session, assets, 2, on_stored, &seen, &sent),
               OMRA_STATUS_SUCCESS);
  CHECK(sent == 1);
  CHECK(wait_change(&seen.store_result, -1));
  CHECK(atomic_load(&seen.store_result) == 1);
  CHECK_STATUS(omra_session_store_placement(session, NULL, 3, NULL, NULL, &sent),
               OMRA_STATUS_INVALID_ARGUMENT);

  CHECK_STATUS(omra_session_list_nearby_maps(session, NULL, 13.4, 52.5, 0.1, 0.1, on_maps, &seen),
               OMRA_STATUS_SUCCESS);
  CHECK(wait_change(&seen.maps_callbacks, 0));

  float fps_in = -1, fps_persisted = -1, fps_scene = -1;
  CHECK_STATUS(omra_session_fps(session, &fps_in, &fps_persisted, &fps_scene), OMRA_STATUS_SUCCESS);
  CHECK(fps_in >= 0 && fps_persisted >= 0 && fps_scene >= 0);

  CHECK_STATUS(omra_session_dispose(session), OMRA_STATUS_SUCCESS);
  omra_session_destroy(session);
  /* Once destroyed, the handle is refused. */
  CHECK_STATUS(omra_session_dispose(session), OMRA_STATUS_INVALID_HANDLE);
}

int main(void) {
  const char* url = omra_test_server_start();
  if (!url) {
    fprintf(stderr, "the reference back end did not start\n");
    return 1;
  }
  setenv("OMRA_MAPS_HOST", url, 1);
  setenv("OMRA_IMAGE_MATCHER_HOST", url, 1);
  setenv("OMRA_LINEAR_OPTIMIZER_HOST", url, 1);
  setenv("OMRA_RECORD_STORE", "memory", 1);
  setenv("OMRA_METRICS_SINK", "none", 1);
  setenv("OMRA_BUNDLE_ID", "com.example.capi", 1);
  unsetenv("OMRA_MODEL_PATH");
  unsetenv("OMRA_CONFIG");

  CHECK(strcmp(omra_version(), OMRA_VERSION_STRING) == 0);
  CHECK(omra_version_number() == OMRA_VERSION_NUMBER);
  OmraSettings settings;
  CHECK_STATUS(omra_settings_get(&settings), OMRA_STATUS_SUCCESS);
  CHECK(settings.retrieve_assets_interval == 1 && settings.use_beta_algo == 0);
  settings.retrieve_assets_interval = -3;
  CHECK_STATUS(omra_settings_set(&settings), OMRA_STATUS_INVALID_ARGUMENT);

  OmraEnv* env = NULL;
  CHECK_STATUS(omra_env_create(NULL, &env), OMRA_STATUS_SUCCESS);
  if (env) {
    check_bad_arguments(env);
    check_error_messages(env);
    check_multiplayer();
    run_mapping_session(env);
    omra_env_destroy(env);
  }
  /* A second environment whose main queue is the test's own. */
  OmraEnv* hosted = NULL;
  CHECK_STATUS(omra_env_create(NULL, &hosted), OMRA_STATUS_SUCCESS);
  if (hosted) {
    CHECK_STATUS(omra_env_set_main_queue(hosted, host_post, NULL), OMRA_STATUS_SUCCESS);
    check_progress_on_main_queue_and_capped(hosted);
    check_no_callback_after_destroy(hosted);
    drain_until(NULL, 0, 300); /* replies still in flight land before the teardown */
    omra_env_destroy(hosted);
    drain_main(); /* tasks posted during the teardown */
  }
  check_configuration_faults();
  omra_test_server_stop();
  printf("%d passed, %d failed\n", checks - failures, failures);
  return failures == 0 ? 0 : 1;
}
