#include "src/mapping/location_manager.h"

#include <utility>

namespace omra {

std::shared_ptr<LocationManager> LocationManager::create(std::shared_ptr<LocationSource> source) {
  std::shared_ptr<LocationManager> manager(new LocationManager(std::move(source)));
  manager->start();
  return manager;
}

LocationManager::LocationManager(std::shared_ptr<LocationSource> source)
    : feed_(LocationFeed::forSource(source)) {}

LocationManager::~LocationManager() {
  if (feed_) feed_->unsubscribe(token_);
}

void LocationManager::start() {
  if (!feed_) return;
  // Updates are started before permission matters: a source delivers once the user allows.
  std::weak_ptr<LocationManager> weak = weak_from_this();
  token_ = feed_->subscribe(
      [weak](const Location& location) {
        if (auto self = weak.lock()) self->didUpdateLocations({location});
      },
      [weak](double trueHeadingDegrees) {
        // The source reports a valid true heading; it carries no accuracy figure of its own.
        if (auto self = weak.lock()) {
          self->didUpdateHeading({trueHeadingDegrees, trueHeadingDegrees, 0.0});
        }
      });
}

void LocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::optional<Location> LocationManager::currentLocation() const {
  {
    std::lock_guard lock(mutex_);
    if (currentLocation_) return currentLocation_;
  }
  return feed_ ? feed_->latestLocation() : std::nullopt;
}

std::optional<double> LocationManager::currentHeading() const {
  std::lock_guard lock(mutex_);
  return currentHeading_;
}

std::optional<double> LocationManager::currentHeadingAccuracy() const {
  std::lock_guard lock(mutex_);
  return currentHeadingAccuracy_;
}

LocationInfo LocationManager::locationInfo(uint32_t cameraFrameId) const {
  const std::optional<Location> location = currentLocation();
  LocationInfo info;
  info.cameraFrameId = cameraFrameId;
  if (location) {
    info.longitude = location->longitude;
    info.latitude = location->latitude;
    info.altitude = location->altitude;
    info.horizontalAccuracy = location->horizontalAccuracy;
    info.verticalAccuracy = location->verticalAccuracy;
  }
  std::lock_guard lock(mutex_);
  info.heading = currentHeading_;
  info.headingAccuracy = currentHeadingAccuracy_;
  return info;
}

void LocationManager::didUpdateLocations(const std::vector<Location>& locations) {
  if (locations.empty()) return;
  std::shared_ptr<LocationManagerDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    delegate = delegate_.lock();
  }
  // The delegate runs without the lock so that it may read the manager.
  if (delegate) {
    for (const Location& location : locations) {
      delegate->locationManagerDidUpdateLocation(*this, location);
    }
  }
  std::lock_guard lock(mutex_);
  currentLocation_ = locations.back();
}

void LocationManager::didUpdateHeading(const HeadingReading& heading) {
  const double value = heading.headingAccuracy >= 0 ? heading.trueHeading : heading.magneticHeading;
  std::shared_ptr<LocationManagerDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    currentHeading_ = value;
    currentHeadingAccuracy_ = heading.headingAccuracy;
    delegate = delegate_.lock();
  }
  if (delegate) delegate->locationManagerDidUpdateHeading(*this, value, heading.headingAccuracy);
}

}  // namespace omra
