#include "server/localizers/object_footprint.h"

#include "src/foundation/object_sizes.h"

namespace omra::server {

double typicalFootprint(const std::string& label) {
  const std::optional<ObjectSize> size = typicalObjectSize(label);
  return size ? size->longSide : 0.0;
}

}  // namespace omra::server
