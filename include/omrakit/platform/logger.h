// Logging. The kit distinguishes a console print (developer output) from the system log.
//
// Thread-safe.
#pragma once

#include <string_view>

namespace omra {

enum class LogLevel { kDebug, kInfo, kError };

class Logger {
 public:
  virtual ~Logger() = default;
  // A console print, as the kit's own printed messages.
  virtual void print(std::string_view message) = 0;
  // The system log (syslog on Linux).
  virtual void systemLog(LogLevel level, std::string_view message) = 0;
};

}  // namespace omra
