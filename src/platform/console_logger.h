// The default Logger on Linux: every line goes to the process's log handler (setLogHandler; by
// default errors to standard error), the system log also to syslog(3).
#pragma once

#include <mutex>

#include "omrakit/platform/logger.h"

namespace omra {

// Shared by all threads; both methods are thread-safe (one whole line per call). Prints are at the
// info level.
class ConsoleLogger : public Logger {
 public:
  ConsoleLogger();
  void print(std::string_view message) override;
  void systemLog(LogLevel level, std::string_view message) override;
};

}  // namespace omra
