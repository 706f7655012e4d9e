// An axis-aligned world box with a heading: one read of a tracked object. Value type.
#pragma once

#include <array>

#include "omrakit/vector3.h"

namespace omra {

struct BoundingBox3D {
  float minX = 0, maxX = 0, minY = 0, maxY = 0, minZ = 0, maxZ = 0;  // metres, world
  float theta = 0;                                                   // heading, radians
  double confidence = 0;                                             // detection score

  Vector3 center() const { return {(minX + maxX) / 2, (minY + maxY) / 2, (minZ + maxZ) / 2}; }
  Vector3 size() const { return {maxX - minX, maxY - minY, maxZ - minZ}; }
  // The box of an empty point set: no extent on any axis. It carries no position.
  bool isEmpty() const { return minX == maxX && minY == maxY && minZ == maxZ; }
  // The eight corners, turned by theta about the vertical axis through the centre unless
  // withoutRotation. Order: bottom face (y = minY) then top face, each (minX,minZ), (maxX,minZ),
  // (maxX,maxZ), (minX,maxZ).
  std::array<Vector3, 8> getCubeVertices(bool withoutRotation) const;
  bool operator==(const BoundingBox3D&) const = default;
};

}  // namespace omra
