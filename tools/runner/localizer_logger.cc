#include "tools/runner/localizer_logger.h"

namespace omra::tools {

LocalizerLogger::LocalizerLogger(std::function<void(std::string_view)> forward)
    : forward_(std::move(forward)) {}

std::optional<std::string> LocalizerLogger::localizerOfLine(std::string_view line) {
  constexpr std::string_view kPrefix = "Received ";
  constexpr std::string_view kMarker = " result ";
  if (line.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
  size_t marker = line.find(kMarker);
  if (marker == std::string_view::npos) return std::nullopt;
  std::string_view rest = line.substr(marker + kMarker.size());
  size_t colon = rest.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  return std::string(rest.substr(0, colon));
}

void LocalizerLogger::print(std::string_view message) {
  if (std::optional<std::string> name = localizerOfLine(message)) {
    std::lock_guard lock(mutex_);
    last_ = std::move(name);
  }
  if (forward_) forward_(message);
}

void LocalizerLogger::systemLog(LogLevel level, std::string_view message) {
  if (level == LogLevel::kError) {
    std::lock_guard lock(mutex_);
    errors_.emplace_back(message);
  }
  if (forward_) forward_(message);
}

std::optional<std::string> LocalizerLogger::lastLocalizer() const {
  std::lock_guard lock(mutex_);
  return last_;
}

std::vector<std::string> LocalizerLogger::errors() const {
  std::lock_guard lock(mutex_);
  return errors_;
}

}  // namespace omra::tools
