#include "sim/object_classes.h"

#include <array>

namespace omra::sim {
namespace {

constexpr std::array<ObjectClass, 18> kClasses{{
    {"chair", 62, 0.50, 0.90, 0.50, Placement::kFloor, 0},
    {"couch", 63, 1.80, 0.85, 0.85, Placement::kFloorAgainstWall, 0},
    {"potted plant", 64, 0.40, 0.85, 0.40, Placement::kFloor, 0},
    {"tv", 72, 1.00, 0.60, 0.08, Placement::kWall, 1.30},
    {"laptop", 73, 0.34, 0.23, 0.25, Placement::kTableTop, 0},
    {"microwave", 78, 0.50, 0.30, 0.38, Placement::kTableTop, 0},
    {"refrigerator", 82, 0.70, 1.80, 0.70, Placement::kFloorAgainstWall, 0},
    {"book", 84, 0.22, 0.08, 0.30, Placement::kTableTop, 0},
    {"clock", 85, 0.32, 0.32, 0.06, Placement::kWall, 1.90},
    {"vase", 86, 0.16, 0.32, 0.16, Placement::kTableTop, 0},
    {"bottle", 44, 0.08, 0.30, 0.08, Placement::kTableTop, 0},
    {"cup", 47, 0.10, 0.12, 0.10, Placement::kTableTop, 0},
    {"bowl", 51, 0.22, 0.09, 0.22, Placement::kTableTop, 0},
    {"teddy bear", 88, 0.32, 0.42, 0.26, Placement::kFloor, 0},
    {"suitcase", 33, 0.45, 0.70, 0.26, Placement::kFloorAgainstWall, 0},
    {"backpack", 27, 0.32, 0.46, 0.22, Placement::kFloor, 0},
    {"sports ball", 37, 0.24, 0.24, 0.24, Placement::kFloor, 0},
    {"oven", 79, 0.60, 0.85, 0.60, Placement::kFloorAgainstWall, 0},
}};

constexpr ObjectClass kTable{"dining table", 67, 1.40, 0.75, 0.80, Placement::kFloorAgainstWall, 0};

}  // namespace

std::span<const ObjectClass> furnitureClasses() { return kClasses; }

const ObjectClass& tableClass() { return kTable; }

const ObjectClass* findClass(std::string_view name) {
  if (name == kTable.name) return &kTable;
  for (const ObjectClass& c : kClasses) {
    if (c.name == name) return &c;
  }
  return nullptr;
}

}  // namespace omra::sim
