#include "omrakit/detected_object.h"

#include "src/foundation/number_format.h"

namespace omra {

std::string DetectedObject::print() const {
  auto f = [](float v) { return formatFloatShortest(v); };
  return name_ + ", " + f(confidence_) + ", (" + f(center_.x) + ", " + f(center_.y) + ", " +
         f(center_.z) + "), " + f(width_) + ", " + f(height_) + ", " + f(depth_) + ", " +
         f(orientation_) + ", " + std::to_string(id_);
}

}  // namespace omra
