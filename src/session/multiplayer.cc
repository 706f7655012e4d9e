#include "omrakit/multiplayer.h"

#include <cmath>

namespace omra {

UnityMultiplayerTransform unityMultiplayerSync(const Vector3& localA, const Vector3& localB,
                                               const Vector3& remoteA, const Vector3& remoteB,
                                               const std::optional<Quaternion>& rotationRemote) {
  Quaternion rotation;
  if (rotationRemote) {
    rotation = *rotationRemote;
  } else {
    const Vector3 dLocal = localA - localB;
    const Vector3 dRemote = remoteA - remoteB;
    // The full 3-D directions are used; their vertical parts are not removed first.
    const float angle = Vector3::angle(dRemote, dLocal);
    const float up = dRemote.cross(dLocal).y;                  // its component along the up vector
    const float sign = up > 0 ? 1.0f : up < 0 ? -1.0f : 0.0f;  // 0 also for not a number
    rotation = Quaternion::euler(0, angle * sign, 0);
  }
  const Vector3 offA = localA - rotation.rotate(remoteA);
  const Vector3 offB = localB - rotation.rotate(remoteB);
  // Only the height is averaged over both pairs; x and z come from pair A on purpose.
  const Vector3 offset(offA.x, (offA.y + offB.y) * 0.5f, offA.z);
  const float error = (offB - offA).length();
  return UnityMultiplayerTransform(rotation, offset, error);
}

}  // namespace omra
