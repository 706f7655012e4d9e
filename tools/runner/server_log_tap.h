// Sits between an in-process omra-server and whoever runs it: keeps the server's warning lines
// (a localizer that read no frames, say) so that the command can show them whatever its verbosity,
// and forwards every line when asked to. Owned by the runner, outliving the server; thread-safe.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace omra::tools {

class ServerLogTap {
 public:
  // forward: every line (verbose output); onWarning: each warning as it comes. Either may be
  // empty; both must be thread-safe.
  explicit ServerLogTap(std::function<void(std::string_view)> forward = {},
                        std::function<void(std::string_view)> onWarning = {});

  // For ServerOptions::log; valid while the tap lives.
  std::function<void(std::string_view)> sink();
  // The warning lines so far, in order.
  std::vector<std::string> warnings() const;

 private:
  void take(std::string_view line);

  std::function<void(std::string_view)> forward_, onWarning_;
  mutable std::mutex mutex_;
  std::vector<std::string> warnings_;
};

}  // namespace omra::tools
