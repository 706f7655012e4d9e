/* The smallest program against the installed kit: prints the version and aligns two devices. */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <omrakit/omrakit_c.h>

int main(void) {
  OmraVec3 local_a = {0, 0, -1}, local_b = {0, 0, 0};
  OmraVec3 remote_a = {1, 0, 0}, remote_b = {0, 0, 0};
  OmraUnityMultiplayerTransform t;
  OmraStatus status = omra_unity_multiplayer_sync(local_a, local_b, remote_a, remote_b, NULL, &t);
  if (status != OMRA_STATUS_SUCCESS) {
    fprintf(stderr, "sync failed: %s\n", omra_status_string(status));
    return 1;
  }
  printf("omrakit %s: remote-to-local rotation y=%.4f w=%.4f\n", omra_version(),
         t.rotation_remote_to_local.y, t.rotation_remote_to_local.w);
  return strcmp(omra_version(), "v0.3.6") == 0 && fabsf(t.update_error) < 1e-5f ? 0 : 1;
}
