// Aligning two devices' AR frames for a shared scene, from two points both have seen.
//
// Pure values and a pure function: callable from any thread at any time, also while sessions run.
#pragma once

#include <optional>

#include "omrakit/quaternion.h"
#include "omrakit/vector3.h"

namespace omra {

// The transform that carries remote coordinates into local ones: local = R * remote + T.
struct UnityMultiplayerTransform {
  Quaternion rotationRemoteToLocal;  // R, a rotation about the vertical axis unless given
  Vector3 offsetLocalToRemote;       // T
  float updateError = 0;             // metres between the offsets the two point pairs give alone

  UnityMultiplayerTransform() = default;
  UnityMultiplayerTransform(const Quaternion& rotation, const Vector3& offset, float error)
      : rotationRemoteToLocal(rotation), offsetLocalToRemote(offset), updateError(error) {}
};

// localA/localB and remoteA/remoteB are the same two physical points in the local and remote world
// frames. When rotationRemote is given it is used as R unchanged; otherwise R is the yaw that
// turns remoteA - remoteB onto localA - localB. T takes x and z from pair A alone and averages y
// over both pairs. Coinciding points give not-a-number results; nothing is checked.
UnityMultiplayerTransform unityMultiplayerSync(const Vector3& localA, const Vector3& localB,
                                               const Vector3& remoteA, const Vector3& remoteB,
                                               const std::optional<Quaternion>& rotationRemote);

}  // namespace omra
