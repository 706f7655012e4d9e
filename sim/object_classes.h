// The detector classes the simulator furnishes rooms with (immutable table, thread-safe to read).
//
// Indices are those of the detector's 91-entry COCO label list (index 0 is the background), so a
// simulated detection of class k decodes to the kit's classNames[k].
#pragma once

#include <span>
#include <string_view>

namespace omra::sim {

enum class Placement {
  kFloor,             // stands on the floor, anywhere in the band along the walls
  kFloorAgainstWall,  // stands on the floor with its back to a wall
  kWall,              // hangs on a wall
  kTableTop,          // stands on the table
};

struct ObjectClass {
  std::string_view name;
  int index;                    // COCO label index
  double width, height, depth;  // metres, before per-object variation
  Placement placement;
  double mountHeight;  // kWall: height of the centre above the floor
};

// Every class the simulator may place, the table excluded.
std::span<const ObjectClass> furnitureClasses();
// The table everything on kTableTop stands on ("dining table").
const ObjectClass& tableClass();
// nullptr for an unknown name.
const ObjectClass* findClass(std::string_view name);

}  // namespace omra::sim
