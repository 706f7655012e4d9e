// MapAsset: one placement of a host asset, as the host stores it and as localization returns it.
//
// Plain value; not thread-safe to mutate one instance concurrently.
#pragma once

#include <cmath>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "omrakit/vector3.h"

namespace omra {

struct MapAsset {
  std::string assetID;
  Vector3 position;          // metres, in the current session's frame
  float orientation = 0;     // rotation about the vertical axis, radians
  float confidence = -1.0f;  // -1 when set by the host
  std::string matrix;        // optional full transform text

  MapAsset() = default;
  MapAsset(std::string assetID_, Vector3 position_, float orientation_)
      : assetID(std::move(assetID_)), position(position_), orientation(orientation_) {}
};

// Same identifier, position and orientation (exact); confidence and matrix are not compared.
inline bool operator==(const MapAsset& a, const MapAsset& b) {
  return a.assetID == b.assetID && a.position == b.position && a.orientation == b.orientation;
}

// Asset positions the kit hands the host have every coordinate finite and within this many metres
// of the session's origin; relocalization transforms whose components are not finite or lie
// beyond it are logged and dropped, and the back end refuses placements beyond it. A map is a
// room or a building: anything farther is a corrupt answer, not a place.
inline constexpr double kMaxAssetCoordinateMetres = 10000.0;

// Whether value is finite and within kMaxAssetCoordinateMetres of zero.
inline bool isPlausibleCoordinate(double value) {
  return std::isfinite(value) && std::abs(value) <= kMaxAssetCoordinateMetres;
}

inline bool isPlausiblePosition(const Vector3& p) {
  return isPlausibleCoordinate(p.x) && isPlausibleCoordinate(p.y) && isPlausibleCoordinate(p.z);
}

using AssetsFoundCallback = std::function<void(std::vector<MapAsset>)>;

}  // namespace omra
