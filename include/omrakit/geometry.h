// Small value types for positions and transforms shared by the public API and the platform types.
//
// Conventions, stated once for the whole kit: metres; y up; right-handed; a 4x4 transform is stored
// column-major (columns[3] is the translation), as the AR platforms hand them out. A transform
// named a_from_b carries coordinates of frame b into frame a.
#pragma once

#include <array>
#include <cstddef>

namespace omra {

struct Float2 {
  float x = 0, y = 0;
};

struct Float3 {
  float x = 0, y = 0, z = 0;
};

struct Float4 {
  float x = 0, y = 0, z = 0, w = 0;
};

// Column-major 4x4 float matrix. Value type; not thread-safe to mutate concurrently.
struct Matrix4x4 {
  std::array<Float4, 4> columns{Float4{1, 0, 0, 0}, Float4{0, 1, 0, 0}, Float4{0, 0, 1, 0},
                                Float4{0, 0, 0, 1}};

  static Matrix4x4 identity() { return {}; }
  Float3 translation() const { return {columns[3].x, columns[3].y, columns[3].z}; }
  // Element at (row, column).
  float at(int row, int column) const {
    const Float4& c = columns[static_cast<size_t>(column)];
    return row == 0 ? c.x : row == 1 ? c.y : row == 2 ? c.z : c.w;
  }
};

}  // namespace omra
