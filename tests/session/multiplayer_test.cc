#include "omrakit/multiplayer.h"

#include <gtest/gtest.h>

#include <cmath>

namespace omra {
namespace {

constexpr float kEps = 1e-5f;

void expectNear(const Vector3& actual, const Vector3& expected) {
  EXPECT_NEAR(actual.x, expected.x, kEps);
  EXPECT_NEAR(actual.y, expected.y, kEps);
  EXPECT_NEAR(actual.z, expected.z, kEps);
}

TEST(MultiplayerSync, IdenticalFramesGiveIdentity) {
  const Vector3 a(3, 1, 2), b(1, 1, 2);
  UnityMultiplayerTransform t = unityMultiplayerSync(a, b, a, b, std::nullopt);
  EXPECT_FLOAT_EQ(t.rotationRemoteToLocal.w(), 1.0f);
  EXPECT_FLOAT_EQ(t.rotationRemoteToLocal.y(), 0.0f);
  expectNear(t.offsetLocalToRemote, {0, 0, 0});
  EXPECT_NEAR(t.updateError, 0.0f, kEps);
}

TEST(MultiplayerSync, RemoteTurnedAQuarterAboutUp) {
  // dRemote = (1,0,0), dLocal = (0,0,-1): c.y = +1, yaw +90 degrees.
  const Vector3 remoteA(1, 0, 0), remoteB(0, 0, 0);
  const Vector3 localA(0, 0, -1), localB(0, 0, 0);
  UnityMultiplayerTransform t =
      unityMultiplayerSync(localA, localB, remoteA, remoteB, std::nullopt);
  EXPECT_NEAR(t.rotationRemoteToLocal.y(), std::sin(kPi / 4), kEps);
  EXPECT_NEAR(t.rotationRemoteToLocal.w(), std::cos(kPi / 4), kEps);
  expectNear(t.rotationRemoteToLocal.rotate({1, 0, 0}), {0, 0, -1});
  expectNear(t.offsetLocalToRemote, {0, 0, 0});
  EXPECT_NEAR(t.updateError, 0.0f, kEps);
}

TEST(MultiplayerSync, OppositeTurnGivesNegativeYaw) {
  // The mirror case: the sign must come from the cross product, not from the unsigned angle.
  UnityMultiplayerTransform t =
      unityMultiplayerSync({0, 0, 1}, {0, 0, 0}, {1, 0, 0}, {0, 0, 0}, std::nullopt);
  EXPECT_NEAR(t.rotationRemoteToLocal.y(), -std::sin(kPi / 4), kEps);
  expectNear(t.rotationRemoteToLocal.rotate({1, 0, 0}), {0, 0, 1});
}

TEST(MultiplayerSync, TranslationWithRotation) {
  // Remote is local turned by 90 degrees and shifted by (5, 1, -2).
  const Quaternion r = Quaternion::euler(0, 90, 0);
  const Vector3 shift(5, 1, -2);
  const Vector3 remoteA(1, 0, 2), remoteB(-3, 0, 1);
  const Vector3 localA = r.rotate(remoteA) + shift;
  const Vector3 localB = r.rotate(remoteB) + shift;
  UnityMultiplayerTransform t =
      unityMultiplayerSync(localA, localB, remoteA, remoteB, std::nullopt);
  expectNear(t.offsetLocalToRemote, shift);
  EXPECT_NEAR(t.updateError, 0.0f, 1e-4f);
}

TEST(MultiplayerSync, VerticalPartOfTheDirectionsIsNotRemoved) {
  // Same setup with a height difference between A and B: the 3-D angle is no longer the yaw, so
  // the estimate is off and the error shows it.
  const Quaternion r = Quaternion::euler(0, 90, 0);
  const Vector3 remoteA(1, 0, 2), remoteB(-3, 2, 1);
  UnityMultiplayerTransform t =
      unityMultiplayerSync(r.rotate(remoteA), r.rotate(remoteB), remoteA, remoteB, std::nullopt);
  EXPECT_LT(std::fabs(t.rotationRemoteToLocal.y()), std::sin(kPi / 4) - 0.01f);
  EXPECT_GT(t.updateError, 0.01f);
}

TEST(MultiplayerSync, GivenRotationIsUsedUnchanged) {
  const Quaternion given(0.1f, 0.2f, 0.3f, 0.9f);  // deliberately not a pure yaw
  UnityMultiplayerTransform t =
      unityMultiplayerSync({1, 1, 1}, {2, 2, 2}, {0, 0, 0}, {5, 0, 0}, given);
  EXPECT_EQ(t.rotationRemoteToLocal.x(), given.x());
  EXPECT_EQ(t.rotationRemoteToLocal.y(), given.y());
  EXPECT_EQ(t.rotationRemoteToLocal.z(), given.z());
  EXPECT_EQ(t.rotationRemoteToLocal.w(), given.w());
  // offA = localA - R(0) = localA.
  EXPECT_FLOAT_EQ(t.offsetLocalToRemote.x, 1.0f);
  EXPECT_FLOAT_EQ(t.offsetLocalToRemote.z, 1.0f);
}

TEST(MultiplayerSync, VerticalDisagreementIsAveragedAndReported) {
  // Pair B sits 0.4 m higher locally than pair A: only y is averaged, x and z come from pair A.
  UnityMultiplayerTransform t =
      unityMultiplayerSync({1, 0, 0}, {3, 0.4f, 0}, {1, 0, 0}, {3, 0, 0}, std::nullopt);
  EXPECT_NEAR(t.offsetLocalToRemote.y, 0.2f, kEps);
  EXPECT_NEAR(t.offsetLocalToRemote.x, 0.0f, kEps);
  EXPECT_NEAR(t.updateError, 0.4f, kEps);
}

TEST(MultiplayerSync, HorizontalComponentsComeFromPairAOnly) {
  // Pairs disagree horizontally: the offset keeps pair A's x and z, the error shows the gap.
  UnityMultiplayerTransform t =
      unityMultiplayerSync({1, 0, 0}, {2, 0, 0}, {0, 0, 0}, {1, 0, 0.5f}, std::nullopt);
  const Quaternion& r = t.rotationRemoteToLocal;
  const Vector3 offA = Vector3(1, 0, 0) - r.rotate({0, 0, 0});
  const Vector3 offB = Vector3(2, 0, 0) - r.rotate({1, 0, 0.5f});
  EXPECT_NEAR(t.offsetLocalToRemote.x, offA.x, kEps);
  EXPECT_NEAR(t.offsetLocalToRemote.z, offA.z, kEps);
  EXPECT_NEAR(t.updateError, (offB - offA).length(), kEps);
  EXPECT_GT(t.updateError, 0.1f);
}

TEST(MultiplayerSync, CoincidingPointsGiveNotANumberWithoutFailing) {
  UnityMultiplayerTransform t =
      unityMultiplayerSync({1, 1, 1}, {1, 1, 1}, {0, 0, 0}, {1, 0, 0}, std::nullopt);
  // The angle is not a number; the sign is then 0, so the yaw is NaN * 0 = NaN.
  EXPECT_TRUE(std::isnan(t.rotationRemoteToLocal.w()));
  EXPECT_TRUE(std::isnan(t.offsetLocalToRemote.x));
}

TEST(MultiplayerSync, OppositeDirectionsGiveZeroYaw) {
  // Parallel but opposite with c.y == 0: the sign is 0 although the angle is 180 degrees.
  UnityMultiplayerTransform t =
      unityMultiplayerSync({-1, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0, 0, 0}, std::nullopt);
  EXPECT_FLOAT_EQ(t.rotationRemoteToLocal.w(), 1.0f);
  EXPECT_FLOAT_EQ(t.rotationRemoteToLocal.y(), 0.0f);
}

}  // namespace
}  // namespace omra
