// A Logger for hosts that want to know which back-end localizer produced the transform behind each
// assets-found callback, and with what match value: the kit prints a line naming both just before
// it re-places the assets, on the same thread and under its own serialisation. Shared by the kit's
// threads and the host; every method is thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/platform/logger.h"

namespace omra::tools {

// What a kit result line names.
struct LocalizerResult {
  std::string localizer;
  std::optional<double> matchValue;  // none when the value does not read as a number
};

class LocalizerLogger : public Logger {
 public:
  // Every line is also handed to forward when it is set (verbose output); it must be thread-safe.
  explicit LocalizerLogger(std::function<void(std::string_view)> forward = {});

  void print(std::string_view message) override;
  void systemLog(LogLevel level, std::string_view message) override;

  // The newest accepted result line's localizer and match value, or none yet. Thread-safe.
  std::optional<LocalizerResult> lastResult() const;
  // Error-level system log lines seen so far. Thread-safe.
  std::vector<std::string> errors() const;

  // The localizer and match value of a kit line "Received ... result NAME: VALUE", or none. Pure.
  static std::optional<LocalizerResult> resultOfLine(std::string_view line);

 private:
  std::function<void(std::string_view)> forward_;
  mutable std::mutex mutex_;
  std::optional<LocalizerResult> last_;
  std::vector<std::string> errors_;
};

}  // namespace omra::tools
