// The default Logger on Linux: console prints go to stdout, the system log to syslog(3).
#pragma once

#include <mutex>

#include "omrakit/platform/logger.h"

namespace omra {

// Shared by all threads; both methods are thread-safe (one whole line per call).
class ConsoleLogger : public Logger {
 public:
  ConsoleLogger();
  void print(std::string_view message) override;
  void systemLog(LogLevel level, std::string_view message) override;

 private:
  std::mutex mutex_;
};

}  // namespace omra
