#include "src/foundation/orientation.h"

#include <gtest/gtest.h>

#include "src/platform/fixed_device_info.h"

namespace omra {
namespace {

FixedDeviceInfo declaring(std::optional<std::vector<std::string>> orientations) {
  FixedDeviceInfo::Values v;
  v.supportedInterfaceOrientations = std::move(orientations);
  return FixedDeviceInfo(v);
}

TEST(Orientation, RawValues) {
  EXPECT_EQ(phoneOrientationFromRawValue(1), phoneOrientation::portrait);
  EXPECT_EQ(phoneOrientationFromRawValue(3), phoneOrientation::landscapeLeft);
  EXPECT_EQ(phoneOrientationFromRawValue(4), phoneOrientation::landscapeRight);
  for (int raw : {0, 2, 5, 6, -1}) EXPECT_FALSE(phoneOrientationFromRawValue(raw)) << raw;
}

TEST(Orientation, ApplicationSupportFromDeclarations) {
  using V = std::vector<std::string>;
  const struct {
    std::optional<V> declared;
    supportedOrientations expected;
  } cases[] = {
      {V{"UIInterfaceOrientationPortrait", "UIInterfaceOrientationLandscapeLeft",
         "UIInterfaceOrientationLandscapeRight"},
       supportedOrientations::landscapeLeftAndRight},
      {V{"UIInterfaceOrientationLandscapeLeft"}, supportedOrientations::landscapeLeft},
      {V{"UIInterfaceOrientationLandscapeRight"}, supportedOrientations::landscapeRight},
      {V{"UIInterfaceOrientationPortrait"}, supportedOrientations::portrait},
      // Exact text only: a prefix or a different case is not a declaration.
      {V{"UIInterfaceOrientationLandscape", "uiinterfaceorientationlandscaperight"},
       supportedOrientations::portrait},
      {V{}, supportedOrientations::portrait},
      {std::nullopt, supportedOrientations::portrait},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(applicationSupportedOrientations(declaring(c.declared)), c.expected)
        << (c.declared ? c.declared->size() : 99);
  }
  EXPECT_FALSE(
      isOrientationSupported(declaring(std::nullopt), "UIInterfaceOrientationLandscapeLeft"));
}

TEST(Orientation, CorrectOrientationConversion) {
  using P = phoneOrientation;
  using S = supportedOrientations;
  const struct {
    P phone;
    S app;
    int reading;
    P expected;
  } cases[] = {
      {P::landscapeLeft, S::landscapeLeft, 3, P::landscapeLeft},
      {P::landscapeLeft, S::landscapeLeftAndRight, 3, P::landscapeLeft},
      {P::landscapeRight, S::landscapeRight, 4, P::landscapeRight},
      {P::landscapeRight, S::landscapeLeftAndRight, 4, P::landscapeRight},
      // The reading must agree with the phone orientation.
      {P::landscapeRight, S::landscapeLeftAndRight, 3, P::portrait},
      {P::landscapeLeft, S::landscapeLeftAndRight, 4, P::portrait},
      // The application must support that side.
      {P::landscapeLeft, S::landscapeRight, 3, P::portrait},
      {P::landscapeRight, S::landscapeLeft, 4, P::portrait},
      {P::landscapeLeft, S::portrait, 3, P::portrait},
      // Face up (5), face down (6), upside down (2) never give landscape.
      {P::landscapeLeft, S::landscapeLeftAndRight, 5, P::portrait},
      {P::landscapeRight, S::landscapeLeftAndRight, 6, P::portrait},
      {P::landscapeLeft, S::landscapeLeftAndRight, 2, P::portrait},
      {P::portrait, S::landscapeLeftAndRight, 3, P::portrait},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(correctOrientationConversion(c.phone, c.app, c.reading), c.expected)
        << static_cast<int>(c.phone) << " " << static_cast<int>(c.app) << " " << c.reading;
  }
}

}  // namespace
}  // namespace omra
