// A LocationSource that reports one fixed location, as configured.
#pragma once

#include <memory>
#include <optional>

#include "omrakit/config.h"
#include "omrakit/platform/location_source.h"

namespace omra {

// Shared by its users; every method is thread-safe.
class FixedLocationSource : public LocationSource {
 public:
  explicit FixedLocationSource(Location location) : location_(location) {}
  // The configured location, or null when the configuration gives no longitude and latitude.
  // Missing accuracies read as 0 (valid); a missing altitude as 0.
  static std::shared_ptr<FixedLocationSource> fromConfig(const Config& config);

  // Reports the location once, on the calling thread, before returning. No heading is reported:
  // there is no compass.
  void start(Listener onLocation, HeadingListener onHeading) override;
  void stop() override;
  std::optional<Location> lastLocation() const override { return location_; }
  bool authorized() const override { return true; }
  const Location& location() const { return location_; }

 private:
  const Location location_;
};

}  // namespace omra
