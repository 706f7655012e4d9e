#include "src/platform/fixed_location_source.h"

namespace omra {

std::shared_ptr<FixedLocationSource> FixedLocationSource::fromConfig(const Config& config) {
  if (!config.longitude || !config.latitude) return nullptr;
  Location l;
  l.longitude = *config.longitude;
  l.latitude = *config.latitude;
  l.altitude = config.altitude.value_or(0);
  l.horizontalAccuracy = config.horizontalAccuracy.value_or(0);
  l.verticalAccuracy = config.verticalAccuracy.value_or(0);
  return std::make_shared<FixedLocationSource>(l);
}

void FixedLocationSource::start(Listener onLocation, HeadingListener /*onHeading*/) {
  if (onLocation) onLocation(location_);
}

void FixedLocationSource::stop() {}

}  // namespace omra
