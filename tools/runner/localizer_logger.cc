#include "tools/runner/localizer_logger.h"

#include <charconv>

namespace omra::tools {

LocalizerLogger::LocalizerLogger(std::function<void(std::string_view)> forward)
    : forward_(std::move(forward)) {}

std::optional<LocalizerResult> LocalizerLogger::resultOfLine(std::string_view line) {
  constexpr std::string_view kPrefix = "Received ";
  constexpr std::string_view kMarker = " result ";
  if (line.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
  size_t marker = line.find(kMarker);
  if (marker == std::string_view::npos) return std::nullopt;
  std::string_view rest = line.substr(marker + kMarker.size());
  size_t colon = rest.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  LocalizerResult result{std::string(rest.substr(0, colon)), std::nullopt};
  std::string_view value = rest.substr(colon + 1);
  while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
  double number = 0;
  const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (ec == std::errc() && end == value.data() + value.size()) result.matchValue = number;
  return result;
}

void LocalizerLogger::print(std::string_view message) {
  if (std::optional<LocalizerResult> result = resultOfLine(message)) {
    std::lock_guard lock(mutex_);
    last_ = std::move(result);
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

std::optional<LocalizerResult> LocalizerLogger::lastResult() const {
  std::lock_guard lock(mutex_);
  return last_;
}

std::vector<std::string> LocalizerLogger::errors() const {
  std::lock_guard lock(mutex_);
  return errors_;
}

}  // namespace omra::tools
