// Facts about the device and the host application. Thread-safe; values do not change while the
// process runs.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace omra {

class DeviceInfo {
 public:
  virtual ~DeviceInfo() = default;
  // The host application's identifier; absent when it is not configured.
  virtual std::optional<std::string> bundleIdentifier() const = 0;
  virtual std::string systemVersion() const = 0;
  // The hardware identifier (uname's machine field).
  virtual std::string machineName() const = 0;
  // Stable per host application on this device; absent when the platform gives none.
  virtual std::optional<std::string> identifierForVendor() const = 0;
  // The host's supported interface orientations, as the platform's key texts
  // ("UIInterfaceOrientationPortrait", ...). Absent when the host declares none.
  virtual std::optional<std::vector<std::string>> supportedInterfaceOrientations() const = 0;
};

}  // namespace omra
