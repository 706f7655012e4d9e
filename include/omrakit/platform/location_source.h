// Where the device is. Thread-safe. On Linux a fixed location from configuration, or none.
//
// A source may deliver on any thread, at once or later. The kit shares one source among its
// sessions: it starts it once and stops it when its last session ends.
#pragma once

#include <functional>
#include <optional>

namespace omra {

struct Location {
  double longitude = 0, latitude = 0;                   // degrees
  double altitude = 0;                                  // metres
  double horizontalAccuracy = 0, verticalAccuracy = 0;  // metres; negative: invalid
};

class LocationSource {
 public:
  using Listener = std::function<void(const Location&)>;
  using HeadingListener = std::function<void(double trueHeadingDegrees)>;
  virtual ~LocationSource() = default;
  // Starts updates; listeners may run on any thread until stop() returns.
  virtual void start(Listener onLocation, HeadingListener onHeading) = 0;
  virtual void stop() = 0;
  // The platform's last known fix, read when a session opens before any delivery; none by default.
  virtual std::optional<Location> lastLocation() const { return std::nullopt; }
  // Whether the user allowed location services.
  virtual bool authorized() const = 0;
};

}  // namespace omra
