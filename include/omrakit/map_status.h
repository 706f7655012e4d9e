// MapStatus: what the session tells the host through its status callback (always on the main
// queue), with stable integer raw values 0 to 9. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace omra {

enum class MapStatus : int64_t {
  initialized = 0,   // the back end opened the map or the localization session
  mapNotFound = 1,   // localization: the stored map does not exist
  networkError = 2,  // no usable answer to the opening request
  reserved3 = 3,     // never raised by this kit; kept so host values stay stable
  serverError = 4,   // the back end answered with an error message
  reserved5 = 5,     // 5 to 9: never raised by this kit; kept so host values stay stable
  reserved6 = 6,
  reserved7 = 7,
  reserved8 = 8,
  reserved9 = 9,
};

// No value for raw values outside 0 to 9.
constexpr std::optional<MapStatus> mapStatusFromRawValue(int64_t rawValue) {
  if (rawValue >= 0 && rawValue <= 9) return static_cast<MapStatus>(rawValue);
  return std::nullopt;
}

constexpr int64_t rawValue(MapStatus status) { return static_cast<int64_t>(status); }

// A short English description for messages and logs; "reserved" for the values the kit never
// raises.
constexpr const char* mapStatusDescription(MapStatus status) {
  switch (status) {
    case MapStatus::initialized:
      return "initialized";
    case MapStatus::mapNotFound:
      return "map not found";
    case MapStatus::networkError:
      return "network error";
    case MapStatus::serverError:
      return "server error";
    default:
      return "reserved";
  }
}

using StatusCallback = std::function<void(MapStatus)>;

}  // namespace omra
