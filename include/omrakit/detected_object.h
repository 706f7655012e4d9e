// An object the kit recognised and placed in the world, as the host receives it. Plain value;
// copies are independent and safe to hand across threads.
#pragma once

#include <cstdint>
#include <string>

#include "omrakit/geometry.h"

namespace omra {

class DetectedObject {
 public:
  DetectedObject() = default;
  DetectedObject(std::string name, float confidence, Float3 center, float width, float height,
                 float depth, float orientation, int64_t id)
      : name_(std::move(name)),
        confidence_(confidence),
        center_(center),
        width_(width),
        height_(height),
        depth_(depth),
        orientation_(orientation),
        id_(id) {}

  const std::string& name() const { return name_; }   // detector class label
  float confidence() const { return confidence_; }    // 0..1
  Float3 center() const { return center_; }           // world, metres
  float width() const { return width_; }              // x extent, metres
  float height() const { return height_; }            // y extent
  float depth() const { return depth_; }              // z extent
  float orientation() const { return orientation_; }  // heading about y, radians
  int64_t id() const { return id_; }                  // stable for the session

  // One line: the fields joined by ", ".
  std::string print() const;

 private:
  std::string name_;
  float confidence_ = 0;
  Float3 center_;
  float width_ = 0, height_ = 0, depth_ = 0;
  float orientation_ = 0;
  int64_t id_ = 0;
};

}  // namespace omra
