// Remembers which localizers the kit asked for on which localization session, so that records
// arriving for it later run them again until a first result is written: the kit asks only on its
// scan events, which may come seconds apart while the session's frames keep arriving. Per server
// process (replicas each follow the sessions whose records reach them). Owned by MapService;
// thread-safe.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace omra::server {

struct SessionFollowerOptions {
  // How long after the kit's first request records still run the localizers again (seconds; 0
  // turns following off), and at most how often they do so per session: every intervalSeconds
  // at first, when a first answer is likeliest to be near, then backing off to backoffShare of
  // the time followed, so that a session nothing answers (another room) costs little.
  double followSeconds = 60;
  double intervalSeconds = 0.25;
  double backoffShare = 0.1;
  size_t maxSessions = 10000;  // beyond this the oldest are forgotten
};

class SessionFollower {
 public:
  using Clock = std::chrono::steady_clock;

  explicit SessionFollower(SessionFollowerOptions options = {}) : options_(options) {}

  // The kit asked for localizer on session (of map mapUuid).
  void asked(const std::string& session, const std::string& mapUuid, const std::string& localizer,
             Clock::time_point now);

  struct Rerun {
    std::string mapUuid;
    std::vector<std::string> localizers;
  };
  // A result was written for session: from here on the kit's own requests suffice.
  void answered(const std::string& session);
  // Records arrived for session: the localizers to run again now, if any.
  std::optional<Rerun> recordsArrived(const std::string& session, Clock::time_point now);

 private:
  struct Followed {
    std::string mapUuid;
    std::set<std::string> localizers;
    Clock::time_point first, last;
  };
  SessionFollowerOptions options_;
  std::mutex mu_;
  std::map<std::string, Followed> sessions_;
  // Sessions already answered: the kit's later requests do not make records run them again.
  // Bounded by maxSessions; one dropped from it is merely followed again.
  std::set<std::string> answered_;
};

}  // namespace omra::server
