// How large the things a phone's object detector names usually are: household furniture and what
// stands about in rooms, by COCO label. Plain functions over a constant table; thread-safe.
#pragma once

#include <optional>
#include <string_view>

namespace omra {

struct ObjectSize {
  float longSide = 0, shortSide = 0;  // horizontal footprint, metres
  float height = 0;                   // what a camera sees of it from the side, metres
  bool round = false;                 // a disc of longSide across, not a rectangle

  float footprintArea() const;
};

// The typical size of an object of this label; none for a label not listed.
std::optional<ObjectSize> typicalObjectSize(std::string_view label);

}  // namespace omra
