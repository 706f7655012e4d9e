// The device's readable model name ("iPhone X", "iPad Air 2", "Simulator") from its hardware
// identifier; an identifier the table does not know is returned unchanged. Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace omra {

class DeviceInfo;

std::string modelName(std::string_view hardwareIdentifier);
// From the device's machine name.
std::string modelName(const DeviceInfo& device);

}  // namespace omra
