// Device facts on Linux: the bundle identifier and supported orientations come from the
// configuration, the OS version from /etc/os-release, the machine from uname(2), and the vendor
// identifier from a file kept per bundle identifier under the user's data directory.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/config.h"
#include "omrakit/platform/device_info.h"

namespace omra {

// Immutable after construction except for the lazily created vendor identifier; every method is
// thread-safe.
class LinuxDeviceInfo : public DeviceInfo {
 public:
  // dataDirectory overrides the user's data directory ($XDG_DATA_HOME, else ~/.local/share).
  explicit LinuxDeviceInfo(const Config& config,
                           std::optional<std::string> dataDirectory = std::nullopt);

  std::optional<std::string> bundleIdentifier() const override;
  // VERSION_ID from /etc/os-release (as a phone reports "17.2", not its kernel build); the kernel
  // release from uname when the file has none.
  std::string systemVersion() const override;
  std::string machineName() const override;
  // An upper-case version 4 UUID made on first use and kept in
  // <data dir>/omrakit/<bundle id>/vendor-id; none without a bundle identifier or when the
  // directory cannot be written.
  std::optional<std::string> identifierForVendor() const override;
  std::optional<std::vector<std::string>> supportedInterfaceOrientations() const override;

  // The vendor-id file for this bundle identifier, when there is one.
  std::optional<std::string> vendorIdPath() const;

 private:
  std::optional<std::string> bundleId_;
  std::optional<std::vector<std::string>> orientations_;
  std::string systemVersion_;
  std::string machine_;
  std::optional<std::string> dataDirectory_;
  mutable std::once_flag vendorOnce_;
  mutable std::optional<std::string> vendorId_;
};

// The VERSION_ID value of an os-release text (quotes removed), or empty.
std::string osReleaseVersionId(std::string_view osRelease);
// A random version 4 UUID in upper-case text form.
std::string randomUuidV4();
// True for the 36-character textual form of a UUID (either case).
bool isUuidText(std::string_view text);

}  // namespace omra
