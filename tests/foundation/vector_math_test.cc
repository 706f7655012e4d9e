#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "omrakit/quaternion.h"
#include "omrakit/vector3.h"
#include "src/foundation/math.h"

namespace omra {
namespace {

constexpr float kEps = 1e-5f;

void expectNear(const Vector3& actual, const Vector3& expected, float eps = kEps) {
  EXPECT_NEAR(actual.x, expected.x, eps);
  EXPECT_NEAR(actual.y, expected.y, eps);
  EXPECT_NEAR(actual.z, expected.z, eps);
}

TEST(Vector3, OperatorsAreComponentWise) {
  const Vector3 a(1, 2, 3), b(2, 2, 2);
  EXPECT_EQ(a * b, Vector3(2, 4, 6));
  EXPECT_EQ(a / b, Vector3(0.5f, 1, 1.5f));
  EXPECT_EQ(a + b, Vector3(3, 4, 5));
  EXPECT_EQ(a - b, Vector3(-1, 0, 1));
  EXPECT_EQ(a * 2.0f, Vector3(2, 4, 6));
  EXPECT_EQ(a / 2.0f, Vector3(0.5f, 1, 1.5f));
  Vector3 c = a;
  c += b;
  c -= Vector3(1, 1, 1);
  c *= Vector3(1, 2, 3);
  c /= 2.0f;
  EXPECT_EQ(c, Vector3(1, 3, 6));
  EXPECT_TRUE(Vector3(2, 2, 2) == 2.0f);
  EXPECT_FALSE(Vector3(2, 2, 2.0001f) == 2.0f);
  EXPECT_FALSE(Vector3(1, 2, 3) == Vector3(1, 2, 3.0001f));
}

TEST(Vector3, DotCrossLengthDistance) {
  const Vector3 x(1, 0, 0), y(0, 1, 0), z(0, 0, 1);
  EXPECT_EQ(x.cross(y), z);  // right-handed
  EXPECT_EQ(Vector3::crossProduct(y, x), Vector3(0, 0, -1));
  EXPECT_EQ(Vector3(1, 2, 3).cross(Vector3(4, 5, 6)), Vector3(-3, 6, -3));
  EXPECT_EQ(Vector3::dotProduct(Vector3(1, 2, 3), Vector3(4, -5, 6)), 12.0f);
  EXPECT_EQ(Vector3(3, 0, 4).length(), 5.0f);
  EXPECT_EQ(Vector3(1, 1, 1).dist(Vector3(4, 1, 5)), 5.0f);
  Vector3 v(0, 3, 4);
  v.normalize();
  expectNear(v, Vector3(0, 0.6f, 0.8f));
  const Vector3 zero = Vector3().normalized();
  EXPECT_TRUE(std::isnan(zero.x) && std::isnan(zero.y) && std::isnan(zero.z));
  EXPECT_EQ(Vector3::up(), y);
  EXPECT_EQ(Vector3(Float3{1, 2, 3}).convert().z, 3.0f);
}

TEST(Vector3, AnglesAndSigns) {
  const Vector3 x(1, 0, 0), minusZ(0, 0, -1);
  EXPECT_NEAR(Vector3::angle(x, minusZ), 90.0f, 1e-4f);
  EXPECT_NEAR(Vector3::angle(Vector3(2, 0, 0), Vector3(1, 1, 0)), 45.0f, 1e-4f);
  // The sign comes from (a x b) . n, so flipping n flips it.
  EXPECT_NEAR(Vector3::signedAngle(x, minusZ, Vector3::up()), 90.0f, 1e-4f);
  EXPECT_NEAR(Vector3::signedAngle(x, minusZ, Vector3(0, -1, 0)), -90.0f, 1e-4f);
  EXPECT_NEAR(Vector3::signedAngle(minusZ, x, Vector3::up()), -90.0f, 1e-4f);
  // Opposite vectors: the cross product vanishes, so the angle is 0 even at 180 degrees.
  EXPECT_EQ(Vector3::signedAngle(x, Vector3(-1, 0, 0), Vector3::up()), 0.0f);
  // A zero vector has no direction: both give NaN.
  EXPECT_TRUE(std::isnan(Vector3::angle(Vector3(), x)));
  EXPECT_TRUE(std::isnan(Vector3::signedAngle(Vector3(), x, Vector3::up())));
}

TEST(Vector3, ThetaIsHeadingFromPlusXTowardsPlusZ) {
  const float kPiF = 3.1415927f;
  EXPECT_NEAR(Vector3(0, 5, -1).theta(), -kPiF / 2, 1e-6f);  // y is ignored
  EXPECT_NEAR(Vector3(0, 0, 1).theta(), kPiF / 2, 1e-6f);
  EXPECT_NEAR(Vector3(-1, 0, 0).theta(), kPiF, 1e-6f);
  EXPECT_NEAR(Vector3(1, 0, 1).theta(), kPiF / 4, 1e-6f);
  EXPECT_NEAR(Vector3(1, 7, -1).theta(), -kPiF / 4, 1e-6f);
  EXPECT_TRUE(std::isnan(Vector3(0, 1, 0).theta()));
}

TEST(Quaternion, EulerAppliesZThenXThenY) {
  // A single y angle: (0, sin(y/2), 0, cos(y/2)).
  const Quaternion qy = Quaternion::euler(0, 90, 0);
  expectNear(Vector3(qy.x(), qy.y(), qy.z()), Vector3(0, std::sin(kPi / 4), 0));
  EXPECT_NEAR(qy.w(), std::cos(kPi / 4), kEps);
  expectNear(qy.rotate(Vector3(1, 0, 0)), Vector3(0, 0, -1));
  expectNear(Quaternion::euler(90, 0, 0).rotate(Vector3(0, 1, 0)), Vector3(0, 0, 1));
  expectNear(Quaternion::euler(0, 0, 90).rotate(Vector3(1, 0, 0)), Vector3(0, 1, 0));
  // z first, then x: +x -> +y (z) -> +z (x). The reverse order would give +y.
  expectNear(Quaternion::euler(90, 0, 90).rotate(Vector3(1, 0, 0)), Vector3(0, 0, 1));
  // For arbitrary angles, the combined rotation equals z, then x, then y applied one by one.
  const Vector3 v(0.3f, -1.2f, 2.5f);
  const Vector3 stepwise = Quaternion::euler(0, 50, 0).rotate(
      Quaternion::euler(30, 0, 0).rotate(Quaternion::euler(0, 0, 70).rotate(v)));
  expectNear(Quaternion::euler(30, 50, 70).rotate(v), stepwise, 1e-4f);
  const Vector3 xFirst = Quaternion::euler(0, 50, 0).rotate(
      Quaternion::euler(0, 0, 70).rotate(Quaternion::euler(30, 0, 0).rotate(v)));
  EXPECT_GT(Quaternion::euler(30, 50, 70).rotate(v).dist(xFirst), 0.1f);
}

TEST(Quaternion, RotateDoesNotNormalise) {
  // A unit (0, 1, 0, 0) would turn (1, 1, 1) into (-1, 1, -1).
  const Quaternion s(0, 2, 0, 0);  // not unit: 1 - 2*4 = -7 on x and z
  expectNear(s.rotate(Vector3(1, 1, 1)), Vector3(-7, 1, -7));
}

TEST(FreeFunctions, LerpClampMedian) {
  const Vector3 start(1, 2, 3), end(3, 2, -1);
  EXPECT_EQ(lerp(start, end, 0.5f), Vector3(2, 2, 1));
  EXPECT_EQ(lerp(start, end, 2.0f), end + (end - start));
  EXPECT_EQ(lerp(start, end, -1.0f), Vector3(-1, 2, 7));
  EXPECT_EQ(clamp(5, 0, 3), 3);
  EXPECT_EQ(clamp(-1.5f, 0.0f, 3.0f), 0.0f);
  EXPECT_EQ(clamp(2.0, 0.0, 3.0), 2.0);
  EXPECT_EQ(calculateMedian({3, 1, 2}), 2.0f);
  EXPECT_EQ(calculateMedian({4, 1, 3, 2}), 2.5f);
  EXPECT_EQ(calculateMedian({7}), 7.0f);
  EXPECT_EQ(calculateMedian({-1, 5}), 2.0f);
  // NaN must not break the sort: it orders last.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(calculateMedian({nan, 1, 2}), 2.0f);
}

TEST(FreeFunctions, EmptyMedianIsFatal) { EXPECT_DEATH(calculateMedian({}), "calculateMedian"); }

TEST(FreeFunctions, VectorText) {
  EXPECT_EQ(convertVectorFloat3ToString(Float3{0.5f, -1.25f, 2.0f}), "0.5,-1.25,2.0");
  EXPECT_EQ(
      convertVectorFloat3ToString(Float3{std::numeric_limits<float>::quiet_NaN(), 1e-05f, 0.1f}),
      "nan,1e-05,0.1");
}

}  // namespace
}  // namespace omra
