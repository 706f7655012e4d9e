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

TEST(MultiplayerSync, YawOffsetAndErrorFromTwoPointPairs) {
  const Quaternion quarter = Quaternion::euler(0, 90, 0);
  const Vector3 shift(5, 1, -2), rA(1, 0, 2), rB(-3, 0, 1);
  const float nan = std::nanf("");
  using V = Vector3;
  const struct {
    const char* name;
    Vector3 localA, localB, remoteA, remoteB;
    float yawDegrees;
    bool exact;  // the result maps both remote points onto their local ones
    Vector3 offset;
    float error;  // NaN: not checked
  } cases[] = {
      {"identical frames", {3, 1, 2}, {1, 1, 2}, {3, 1, 2}, {1, 1, 2}, 0, true, {}, 0},
      // dRemote = (1,0,0), dLocal = (0,0,-1): c.y = +1, yaw +90 degrees.
      {"quarter turn", {0, 0, -1}, {}, {1, 0, 0}, {}, 90, true, {}, 0},
      // The sign must come from the cross product, not from the unsigned angle.
      {"opposite turn", {0, 0, 1}, {}, {1, 0, 0}, {}, -90, true, {}, 0},
      {"turn and shift", quarter.rotate(rA) + shift, quarter.rotate(rB) + shift, rA, rB, 90, true,
       shift, nan},
      // Pair B sits 0.4 m higher locally: only y is averaged, x and z come from pair A.
      {"vertical gap", V(1, 0, 0), V(3, 0.4f, 0), V(1, 0, 0), V(3, 0, 0), 0, false, V(0, 0.2f, 0),
       0.4f},
      // Pairs disagree along the direction: pair A's x and z are kept, the error is the gap.
      {"horizontal gap", V(1, 0, 0), V(3, 0, 0), V(), V(1, 0, 0), 0, false, V(1, 0, 0), 1},
      // Parallel but opposite with c.y == 0: the sign is 0 although the angle is 180 degrees.
      {"opposite directions", {-1, 0, 0}, {}, {1, 0, 0}, {}, 0, false, {-2, 0, 0}, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const UnityMultiplayerTransform t =
        unityMultiplayerSync(c.localA, c.localB, c.remoteA, c.remoteB, std::nullopt);
    const float half = c.yawDegrees * kPi / 360;
    EXPECT_NEAR(t.rotationRemoteToLocal.y(), std::sin(half), kEps);
    EXPECT_NEAR(t.rotationRemoteToLocal.w(), std::cos(half), kEps);
    expectNear(t.offsetLocalToRemote, c.offset);
    if (!std::isnan(c.error)) {
      EXPECT_NEAR(t.updateError, c.error, kEps);
    }
    if (c.exact) {
      expectNear(t.rotationRemoteToLocal.rotate(c.remoteA) + t.offsetLocalToRemote, c.localA);
      expectNear(t.rotationRemoteToLocal.rotate(c.remoteB) + t.offsetLocalToRemote, c.localB);
      EXPECT_NEAR(t.updateError, 0.0f, 1e-4f);
    }
  }
}

TEST(MultiplayerSync, UnusualInputs) {
  // A height difference between A and B: the 3-D angle is no longer the yaw, the error shows it.
  const Quaternion r = Quaternion::euler(0, 90, 0);
  const Vector3 remoteA(1, 0, 2), remoteB(-3, 2, 1);
  UnityMultiplayerTransform t =
      unityMultiplayerSync(r.rotate(remoteA), r.rotate(remoteB), remoteA, remoteB, std::nullopt);
  EXPECT_LT(std::fabs(t.rotationRemoteToLocal.y()), std::sin(kPi / 4) - 0.01f);
  EXPECT_GT(t.updateError, 0.01f);

  // A given rotation is used unchanged, even one that is not a pure yaw; offA = localA - R(0).
  const Quaternion given(0.1f, 0.2f, 0.3f, 0.9f);
  t = unityMultiplayerSync({1, 1, 1}, {2, 2, 2}, {0, 0, 0}, {5, 0, 0}, given);
  EXPECT_EQ(t.rotationRemoteToLocal.x(), given.x());
  EXPECT_EQ(t.rotationRemoteToLocal.y(), given.y());
  EXPECT_EQ(t.rotationRemoteToLocal.z(), given.z());
  EXPECT_EQ(t.rotationRemoteToLocal.w(), given.w());
  EXPECT_FLOAT_EQ(t.offsetLocalToRemote.x, 1.0f);
  EXPECT_FLOAT_EQ(t.offsetLocalToRemote.z, 1.0f);

  // Coinciding local points: the angle and the sign give NaN * 0 = NaN, without failing.
  t = unityMultiplayerSync({1, 1, 1}, {1, 1, 1}, {0, 0, 0}, {1, 0, 0}, std::nullopt);
  EXPECT_TRUE(std::isnan(t.rotationRemoteToLocal.w()));
  EXPECT_TRUE(std::isnan(t.offsetLocalToRemote.x));
}

}  // namespace
}  // namespace omra
