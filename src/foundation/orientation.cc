#include "src/foundation/orientation.h"

#include <algorithm>

#include "omrakit/platform/device_info.h"

namespace omra {

std::optional<phoneOrientation> phoneOrientationFromRawValue(int rawValue) {
  switch (rawValue) {
    case static_cast<int>(phoneOrientation::portrait):
    case static_cast<int>(phoneOrientation::landscapeLeft):
    case static_cast<int>(phoneOrientation::landscapeRight):
      return static_cast<phoneOrientation>(rawValue);
    default:
      return std::nullopt;
  }
}

bool isOrientationSupported(const DeviceInfo& device, std::string_view orientation) {
  const auto declared = device.supportedInterfaceOrientations();
  if (!declared) return false;
  return std::find(declared->begin(), declared->end(), orientation) != declared->end();
}

supportedOrientations applicationSupportedOrientations(const DeviceInfo& device) {
  const bool left = isOrientationSupported(device, kInterfaceOrientationLandscapeLeft);
  const bool right = isOrientationSupported(device, kInterfaceOrientationLandscapeRight);
  if (left && right) return supportedOrientations::landscapeLeftAndRight;
  if (left) return supportedOrientations::landscapeLeft;
  if (right) return supportedOrientations::landscapeRight;
  return supportedOrientations::portrait;
}

phoneOrientation correctOrientationConversion(phoneOrientation phone,
                                              supportedOrientations orientation, int reading) {
  const bool supportsLeft = orientation == supportedOrientations::landscapeLeft ||
                            orientation == supportedOrientations::landscapeLeftAndRight;
  const bool supportsRight = orientation == supportedOrientations::landscapeRight ||
                             orientation == supportedOrientations::landscapeLeftAndRight;
  if (supportsLeft && phone == phoneOrientation::landscapeLeft &&
      reading == static_cast<int>(phoneOrientation::landscapeLeft)) {
    return phoneOrientation::landscapeLeft;
  }
  if (supportsRight && phone == phoneOrientation::landscapeRight &&
      reading == static_cast<int>(phoneOrientation::landscapeRight)) {
    return phoneOrientation::landscapeRight;
  }
  return phoneOrientation::portrait;
}

}  // namespace omra
