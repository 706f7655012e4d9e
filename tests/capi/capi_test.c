/* Drives a whole mapping session through the C API against the reference back end on loopback,
 * and checks that bad arguments give a status instead of a crash. Plain C on purpose: this is what
 * a C#, JNI or Swift binding sees. */
#include <math.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "omrakit/omrakit_c.h"
#include "tests/capi/server_fixture.h"

static int failures = 0;
static int checks = 0;

#define CHECK(cond)                                                   \
  do {                                                                \
    ++checks;                                                         \
    if (!(cond)) {                                                    \
      ++failures;                                                     \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                                 \
  } while (0)

#define CHECK_STATUS(expr, expected)                                            \
  do {                                                                          \
    OmraStatus s_ = (expr);                                                     \
    ++checks;                                                                   \
    if (s_ != (expected)) {                                                     \
      ++failures;                                                               \
      fprintf(stderr, "%s:%d: %s gave %d (%s), expected %d\n", __FILE__, __LINE__, #expr, \
              (int)s_, omra_status_string(s_), (int)(expected));                \
    }                                                                           \
  } while (0)

typedef struct Observed {
  atomic_int status; /* -1 until a status arrives */
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

static void check_bad_arguments(OmraEnv* env) {
  OmraSession* session = NULL;
  OmraSessionOptions options;
  memset(&options, 0, sizeof options);
  /* NULL everywhere. */
  CHECK_STATUS(omra_env_create(NULL, NULL), OMRA_STATUS_INVALID_ARGUMENT);
  CHECK_STATUS(omra_session_create(env, NULL, &session), OMRA_STATUS_INVALID_ARGUMENT);
  CHECK_STATUS(omra_session_create(env, &options, &session), OMRA_STATUS_INVALID_ARGUMENT);
  options.user_id = "user";
  options.map_id = "map";
  options.developer_key = "key";
  options.screen_width = 390;
  options.screen_height = 844;
  options.mode = 7;
  CHECK_STATUS(omra_session_create(env, &options, &session), OMRA_STATUS_INVALID_ARGUMENT);
  options.mode = OMRA_SESSION_MODE_MAPPING;
  CHECK_STATUS(omra_session_create(NULL, &options, &session), OMRA_STATUS_INVALID_HANDLE);
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

  OmraSessionOptions options;
  memset(&options, 0, sizeof options);
  options.mode = OMRA_SESSION_MODE_MAPPING;
  options.user_id = "c-user";
  options.map_id = "c-map";
  options.developer_key = "c-developer-key";
  options.screen_width = 390;
  options.screen_height = 844;
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
  CHECK_STATUS(omra_session_current_uuid(session, uuid, sizeof uuid, &length),
               OMRA_STATUS_SUCCESS);
  CHECK(length == 36);
  CHECK_STATUS(omra_session_current_uuid(session, uuid, 8, &length),
               OMRA_STATUS_INVALID_ARGUMENT);

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
  OmraFrame bad;
  memset(&bad, 0, sizeof bad);
  bad.feature_count = 5; /* count without arrays */
  CHECK_STATUS(omra_session_update(session, &bad), OMRA_STATUS_INVALID_ARGUMENT);

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
  CHECK_STATUS(omra_session_fps(session, &fps_in, &fps_persisted, &fps_scene),
               OMRA_STATUS_SUCCESS);
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

  CHECK(strcmp(omra_version(), "v0.3.6") == 0);
  OmraSettings settings;
  CHECK_STATUS(omra_settings_get(&settings), OMRA_STATUS_SUCCESS);
  CHECK(settings.retrieve_assets_interval == 1 && settings.use_beta_algo == 0);
  settings.retrieve_assets_interval = -3;
  CHECK_STATUS(omra_settings_set(&settings), OMRA_STATUS_INVALID_ARGUMENT);

  OmraEnv* env = NULL;
  CHECK_STATUS(omra_env_create(NULL, &env), OMRA_STATUS_SUCCESS);
  if (env) {
    check_bad_arguments(env);
    check_multiplayer();
    run_mapping_session(env);
    omra_env_destroy(env);
  }
  omra_test_server_stop();
  printf("%d passed, %d failed\n", checks - failures, failures);
  return failures == 0 ? 0 : 1;
}
