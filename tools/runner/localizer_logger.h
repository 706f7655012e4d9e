// A Logger for hosts that want to know which back-end localizer produced the transform behind each
// assets-found callback: the kit prints a line naming the localizer just before it re-places the
// assets, on the same thread and under its own serialisation. Shared by the kit's threads and the
// host; every method is thread-safe.
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

class LocalizerLogger : public Logger {
 public:
  // Every line is also handed to forward when it is set (verbose output); it must be thread-safe.
  explicit LocalizerLogger(std::function<void(std::string_view)> forward = {});

  void print(std::string_view message) override;
  void systemLog(LogLevel level, std::string_view message) override;

  // The localizer of the newest accepted result line, or none yet. Thread-safe.
  std::optional<std::string> lastLocalizer() const;
  // Error-level system log lines seen so far. Thread-safe.
  std::vector<std::string> errors() const;

  // The localizer named by a kit line "Received ... result NAME: VALUE", or none. Pure.
  static std::optional<std::string> localizerOfLine(std::string_view line);

 private:
  std::function<void(std::string_view)> forward_;
  mutable std::mutex mutex_;
  std::optional<std::string> last_;
  std::vector<std::string> errors_;
};

}  // namespace omra::tools
