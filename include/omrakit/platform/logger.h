// Logging. The kit distinguishes a console print (developer output) from the system log.
//
// Thread-safe.
#pragma once

#include <functional>
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

// Where the default Logger (the one makeDefaultEnv builds) sends every line: one handler for the
// process. The handler may run on any of the kit's threads, at once from several; it must be
// thread-safe and must not call back into the kit's logging.
using LogHandler = std::function<void(LogLevel level, std::string_view message)>;

// Installs handler for lines at minimum or above. An empty handler restores the default, which
// writes error lines to standard error and drops the rest. The kit never writes to standard
// output. Thread-safe.
void setLogHandler(LogHandler handler, LogLevel minimum = LogLevel::kInfo);

// Hands one line to the handler, if its level passes. Thread-safe.
void logLine(LogLevel level, std::string_view message);

}  // namespace omra
