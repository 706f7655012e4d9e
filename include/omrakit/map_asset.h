// MapAsset: one placement of a host asset, as the host stores it and as localization returns it.
//
// Plain value; not thread-safe to mutate one instance concurrently.
#pragma once

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

using AssetsFoundCallback = std::function<void(std::vector<MapAsset>)>;

}  // namespace omra
