// A Logger that keeps every line in memory, for tests.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/platform/logger.h"

namespace omra {

// Shared by the code under test and the test; every method is thread-safe.
class MemoryLogger : public Logger {
 public:
  struct Line {
    bool system = false;  // false: a console print
    LogLevel level = LogLevel::kInfo;
    std::string text;
  };

  void print(std::string_view message) override;
  void systemLog(LogLevel level, std::string_view message) override;

  std::vector<Line> lines() const;
  std::vector<std::string> prints() const;
  // True when any line (print or system log) contains needle.
  bool contains(std::string_view needle) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

}  // namespace omra
