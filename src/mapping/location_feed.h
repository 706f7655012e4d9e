// LocationFeed: one LocationSource shared by every location manager of the process that uses it.
//
// Sessions may share one source (the Env's). The feed starts the source for its first subscriber,
// stops it when the last one leaves, hands each update to every subscriber and keeps the latest
// fix and heading, so that a session opening later starts from them. Shared (by shared_ptr) by its
// subscribers; every method is thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "omrakit/platform/location_source.h"

namespace omra {

class LocationFeed : public std::enable_shared_from_this<LocationFeed> {
 public:
  // The process's feed for source (made on first use, gone with its last subscriber holder).
  static std::shared_ptr<LocationFeed> forSource(const std::shared_ptr<LocationSource>& source);

  LocationFeed(const LocationFeed&) = delete;
  LocationFeed& operator=(const LocationFeed&) = delete;
  ~LocationFeed();

  // Adds a subscriber; the first one starts the source. A later one receives the latest fix at
  // once, on the calling thread. Returns the token for unsubscribe.
  uint64_t subscribe(LocationSource::Listener onLocation,
                     LocationSource::HeadingListener onHeading);
  // Removes a subscriber; the last one stops the source. A delivery already under way on the
  // source's thread may still reach the removed subscriber once.
  void unsubscribe(uint64_t token);

  // The newest fix delivered, else the source's own last-known fix.
  std::optional<Location> latestLocation() const;
  std::optional<double> latestHeading() const;

 private:
  explicit LocationFeed(std::shared_ptr<LocationSource> source);
  void deliverLocation(const Location& location);
  void deliverHeading(double heading);

  struct Subscriber {
    LocationSource::Listener onLocation;
    LocationSource::HeadingListener onHeading;
  };

  const std::shared_ptr<LocationSource> source_;
  std::mutex startStopMutex_;  // orders start() and stop() of the source; taken before mutex_
  bool running_ = false;       // guarded by startStopMutex_
  mutable std::mutex mutex_;
  std::map<uint64_t, std::shared_ptr<const Subscriber>> subscribers_;  // guarded by mutex_
  uint64_t nextToken_ = 1;                                             // guarded by mutex_
  std::optional<Location> latest_;                                     // guarded by mutex_
  std::optional<double> heading_;                                      // guarded by mutex_
};

}  // namespace omra
