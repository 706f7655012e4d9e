// Map: one stored map near a location, as the nearby-maps listing returns it.
//
// Plain value; not thread-safe to mutate one instance concurrently.
#pragma once

#include <string>
#include <utility>

namespace omra {

struct Map {
  std::string userID;
  std::string mapID;
  double latitude = 0;            // degrees
  double longitude = 0;           // degrees
  double altitude = 0;            // metres
  double horizontalAccuracy = 0;  // metres
  double verticalAccuracy = 0;    // metres

  Map() = default;
  Map(std::string userID_, std::string mapID_, double latitude_, double longitude_,
      double altitude_, double horizontalAccuracy_, double verticalAccuracy_)
      : userID(std::move(userID_)),
        mapID(std::move(mapID_)),
        latitude(latitude_),
        longitude(longitude_),
        altitude(altitude_),
        horizontalAccuracy(horizontalAccuracy_),
        verticalAccuracy(verticalAccuracy_) {}

  bool operator==(const Map&) const = default;
};

}  // namespace omra
