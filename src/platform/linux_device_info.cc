#include "src/platform/linux_device_info.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "src/foundation/fatal.h"

namespace omra {
namespace {

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::optional<std::string> userDataDirectory() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && xdg[0] == '/') return std::string(xdg);  // relative values are ignored, as XDG says
  const char* home = std::getenv("HOME");
  if (home && home[0]) return std::string(home) + "/.local/share";
  return std::nullopt;
}

// A bundle identifier becomes one folder name: nothing that climbs out of the data directory.
bool isSafeFolderName(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.size() > 255) return false;
  return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

std::string trim(std::string s) {
  const char* ws = " \t\r\n";
  s.erase(0, s.find_first_not_of(ws));
  s.erase(s.find_last_not_of(ws) + 1);
  return s;
}

}  // namespace

std::string osReleaseVersionId(std::string_view osRelease) {
  std::istringstream in{std::string(osRelease)};
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VERSION_ID=", 0) != 0) continue;
    std::string value = trim(line.substr(11));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    return value;
  }
  return {};
}

std::string randomUuidV4() {
  unsigned char b[16];
  if (RAND_bytes(b, sizeof b) != 1) fatalError("OpenSSL could not supply random bytes");
  b[6] = (b[6] & 0x0F) | 0x40;  // version 4
  b[8] = (b[8] & 0x3F) | 0x80;  // RFC 4122 variant
  char text[37];
  std::snprintf(text, sizeof text,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return text;
}

bool isUuidText(std::string_view t) {
  if (t.size() != 36) return false;
  for (size_t i = 0; i < t.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (t[i] != '-') return false;
    } else if (!std::isxdigit(static_cast<unsigned char>(t[i]))) {
      return false;
    }
  }
  return true;
}

LinuxDeviceInfo::LinuxDeviceInfo(const Config& config, std::optional<std::string> dataDirectory)
    : bundleId_(config.bundleIdentifier),
      orientations_(config.supportedOrientations),
      dataDirectory_(dataDirectory ? std::move(dataDirectory) : userDataDirectory()) {
  utsname u{};
  if (uname(&u) == 0) {
    machine_ = u.machine;  // up to the first zero byte
    systemVersion_ = u.release;
  }
  if (auto text = readFile("/etc/os-release")) {
    std::string id = osReleaseVersionId(*text);
    if (!id.empty()) systemVersion_ = id;
  }
}

std::optional<std::string> LinuxDeviceInfo::bundleIdentifier() const { return bundleId_; }

std::string LinuxDeviceInfo::systemVersion() const { return systemVersion_; }

std::string LinuxDeviceInfo::machineName() const { return machine_; }

std::optional<std::vector<std::string>> LinuxDeviceInfo::supportedInterfaceOrientations() const {
  return orientations_;
}

std::optional<std::string> LinuxDeviceInfo::vendorIdPath() const {
  if (!bundleId_ || !isSafeFolderName(*bundleId_) || !dataDirectory_) return std::nullopt;
  return *dataDirectory_ + "/omrakit/" + *bundleId_ + "/vendor-id";
}

std::optional<std::string> LinuxDeviceInfo::identifierForVendor() const {
  std::call_once(vendorOnce_, [this] {
    auto path = vendorIdPath();
    if (!path) return;
    if (auto text = readFile(*path)) {
      std::string id = trim(*text);
      if (isUuidText(id)) {
        vendorId_ = id;
        return;
      }
    }
    std::error_code ec;
    const std::filesystem::path file(*path);
    std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) return;
    // Written aside and linked into place, so that two processes starting together agree on one
    // identifier: link() fails when the file already exists, and then the winner's is read.
    const std::string candidate = randomUuidV4();
    // Unique per attempt: a shared temporary name would let one writer rewrite another's file
    // after it was linked into place.
    const std::string temp = *path + ".tmp." + randomUuidV4();
    {
      std::ofstream out(temp, std::ios::binary | std::ios::trunc);
      if (!out || !(out << candidate << '\n') || !out.flush()) {
        std::filesystem::remove(temp, ec);
        return;
      }
    }
    if (::link(temp.c_str(), path->c_str()) == 0) {
      vendorId_ = candidate;
    } else if (auto text = readFile(*path); text && isUuidText(trim(*text))) {
      vendorId_ = trim(*text);
    } else if (::rename(temp.c_str(), path->c_str()) == 0) {
      vendorId_ = candidate;  // the file there was damaged: replaced
    }
    std::filesystem::remove(temp, ec);
  });
  return vendorId_;
}

}  // namespace omra
