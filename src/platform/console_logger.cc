#include "src/platform/console_logger.h"

#include <syslog.h>

#include <string>

namespace omra {

ConsoleLogger::ConsoleLogger() {
  static std::once_flag once;
  std::call_once(once, [] { openlog("omrakit", LOG_PID, LOG_USER); });
}

void ConsoleLogger::print(std::string_view message) { logLine(LogLevel::kInfo, message); }

void ConsoleLogger::systemLog(LogLevel level, std::string_view message) {
  int priority = LOG_INFO;
  switch (level) {
    case LogLevel::kDebug:
      priority = LOG_DEBUG;
      break;
    case LogLevel::kInfo:
      priority = LOG_INFO;
      break;
    case LogLevel::kError:
      priority = LOG_ERR;
      break;
  }
  logLine(level, message);
  // Through "%s" so that a '%' in the message is never read as a directive.
  syslog(priority, "%s", std::string(message).c_str());
}

}  // namespace omra
