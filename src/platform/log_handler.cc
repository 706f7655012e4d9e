// The process's log handler behind the default Logger and the C API's log callback.
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include "omrakit/platform/logger.h"

namespace omra {
namespace {

struct Installed {
  LogHandler handler;  // empty: the default
  LogLevel minimum = LogLevel::kInfo;
};

std::mutex gMutex;
std::shared_ptr<const Installed>& installed() {
  static auto* current = new std::shared_ptr<const Installed>(std::make_shared<Installed>());
  return *current;
}

int rank(LogLevel level) { return static_cast<int>(level); }

void writeToStandardError(std::string_view message) {
  // One write per line, so lines from several threads do not interleave.
  std::string line("omrakit: ");
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void setLogHandler(LogHandler handler, LogLevel minimum) {
  auto next = std::make_shared<Installed>();
  next->handler = std::move(handler);
  next->minimum = minimum;
  std::lock_guard<std::mutex> lock(gMutex);
  installed() = std::move(next);
}

void logLine(LogLevel level, std::string_view message) {
  std::shared_ptr<const Installed> current;
  {
    std::lock_guard<std::mutex> lock(gMutex);
    current = installed();
  }
  if (!current->handler) {
    if (level == LogLevel::kError) writeToStandardError(message);
    return;
  }
  if (rank(level) >= rank(current->minimum)) current->handler(level, message);
}

}  // namespace omra
