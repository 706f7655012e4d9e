// A DeviceInfo with every value given, for tests and for hosts that know their own facts.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/device_info.h"

namespace omra {

// An immutable value; thread-safe.
class FixedDeviceInfo : public DeviceInfo {
 public:
  struct Values {
    std::optional<std::string> bundleIdentifier = "com.example.host";
    std::string systemVersion = "12";
    std::string machineName = "x86_64";
    std::optional<std::string> identifierForVendor = "00000000-0000-4000-8000-000000000000";
    std::optional<std::vector<std::string>> supportedInterfaceOrientations;
  };

  FixedDeviceInfo() = default;
  explicit FixedDeviceInfo(Values values) : v_(std::move(values)) {}

  std::optional<std::string> bundleIdentifier() const override { return v_.bundleIdentifier; }
  std::string systemVersion() const override { return v_.systemVersion; }
  std::string machineName() const override { return v_.machineName; }
  std::optional<std::string> identifierForVendor() const override { return v_.identifierForVendor; }
  std::optional<std::vector<std::string>> supportedInterfaceOrientations() const override {
    return v_.supportedInterfaceOrientations;
  }

 private:
  Values v_;
};

}  // namespace omra
