#include "tools/runner/server_log_tap.h"

#include "server/localizer_jobs.h"

namespace omra::tools {

ServerLogTap::ServerLogTap(std::function<void(std::string_view)> forward,
                           std::function<void(std::string_view)> onWarning)
    : forward_(std::move(forward)), onWarning_(std::move(onWarning)) {}

std::function<void(std::string_view)> ServerLogTap::sink() {
  return [this](std::string_view line) { take(line); };
}

void ServerLogTap::take(std::string_view line) {
  if (line.substr(0, std::string_view(server::kWarningPrefix).size()) == server::kWarningPrefix) {
    {
      std::lock_guard lock(mutex_);
      warnings_.emplace_back(line);
    }
    if (onWarning_) onWarning_(line);
  }
  if (forward_) forward_(line);
}

std::vector<std::string> ServerLogTap::warnings() const {
  std::lock_guard lock(mutex_);
  return warnings_;
}

}  // namespace omra::tools
