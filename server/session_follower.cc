#include "server/session_follower.h"

#include <algorithm>

namespace omra::server {
namespace {

SessionFollower::Clock::duration seconds(double s) {
  return std::chrono::duration_cast<SessionFollower::Clock::duration>(
      std::chrono::duration<double>(s));
}

}  // namespace

void SessionFollower::asked(const std::string& session, const std::string& mapUuid,
                            const std::string& localizer, Clock::time_point now) {
  if (options_.followSeconds <= 0) return;
  std::lock_guard lock(mu_);
  if (answered_.contains(session)) return;
  auto it = sessions_.find(session);
  if (it == sessions_.end()) {
    if (sessions_.size() >= options_.maxSessions) {
      auto oldest = std::min_element(sessions_.begin(), sessions_.end(), [](auto& a, auto& b) {
        return a.second.first < b.second.first;
      });
      sessions_.erase(oldest);
    }
    it = sessions_.emplace(session, Followed{mapUuid, {}, now, now}).first;
  }
  // A session belongs to one map; a request naming another one is the kit's to answer for.
  if (it->second.mapUuid != mapUuid) return;
  it->second.localizers.insert(localizer);
  it->second.last = now;  // the kit's request runs them now
}

void SessionFollower::answered(const std::string& session) {
  std::lock_guard lock(mu_);
  sessions_.erase(session);
  if (answered_.size() >= options_.maxSessions) answered_.erase(answered_.begin());
  answered_.insert(session);
}

std::optional<SessionFollower::Rerun> SessionFollower::recordsArrived(const std::string& session,
                                                                      Clock::time_point now) {
  std::lock_guard lock(mu_);
  auto it = sessions_.find(session);
  if (it == sessions_.end()) return std::nullopt;
  Followed& f = it->second;
  if (now - f.first > seconds(options_.followSeconds)) {
    sessions_.erase(it);
    return std::nullopt;
  }
  const double followed = std::chrono::duration<double>(now - f.first).count();
  const double interval = std::max(options_.intervalSeconds, options_.backoffShare * followed);
  if (now - f.last < seconds(interval)) return std::nullopt;
  f.last = now;
  return Rerun{f.mapUuid, {f.localizers.begin(), f.localizers.end()}};
}

}  // namespace omra::server
