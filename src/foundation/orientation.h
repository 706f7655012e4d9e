// Image and device orientations, the interface orientations the host application declares, and
// the rule that combines them into the orientation the detector pipeline uses.
//
// Plain enumerations and functions; thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace omra {

class DeviceInfo;

// The EXIF orientation tags 1 to 8, in the standard's order.
enum class EXIFOrientation : uint32_t {
  topLeft = 1,
  topRight = 2,
  bottomRight = 3,
  bottomLeft = 4,
  leftTop = 5,
  rightTop = 6,
  rightBottom = 7,
  leftBottom = 8,
};

// Raw values are the platform's device-orientation codes.
enum class phoneOrientation : int {
  portrait = 1,
  landscapeLeft = 3,
  landscapeRight = 4,
};

// No value for any code other than 1, 3 and 4.
std::optional<phoneOrientation> phoneOrientationFromRawValue(int rawValue);

enum class supportedOrientations {
  landscapeLeft,
  landscapeRight,
  landscapeLeftAndRight,
  portrait,
};

inline constexpr std::string_view kInterfaceOrientationLandscapeLeft =
    "UIInterfaceOrientationLandscapeLeft";
inline constexpr std::string_view kInterfaceOrientationLandscapeRight =
    "UIInterfaceOrientationLandscapeRight";

// True when the host declares exactly this interface orientation text; false when it declares none.
bool isOrientationSupported(const DeviceInfo& device, std::string_view orientation);

// The host's landscape support, from its two landscape declarations.
supportedOrientations applicationSupportedOrientations(const DeviceInfo& device);

// Landscape only when the application supports that side, the pipeline's orientation is that side
// and the device's current reading (a device-orientation code) agrees; otherwise portrait.
phoneOrientation correctOrientationConversion(phoneOrientation phone,
                                              supportedOrientations orientation, int reading);

}  // namespace omra
