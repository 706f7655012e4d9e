// Where the device is. Thread-safe. On Linux a fixed location from configuration, or none.
#pragma once

#include <functional>
#include <optional>

namespace omra {

struct Location {
  double longitude = 0, latitude = 0;  // degrees
  double altitude = 0;                 // metres
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
  // Whether the user allowed location services.
  virtual bool authorized() const = 0;
};

}  // namespace omra
