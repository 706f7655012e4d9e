// How large the things a phone's object detector names usually are. Plain function; thread-safe.
#pragma once

#include <string>

namespace omra::server {

// The longer horizontal side of a typical object of this detector label (COCO names), metres; 0
// for a label not listed.
double typicalFootprint(const std::string& label);

}  // namespace omra::server
