// Where a region of the captured image lands in the detector's square input: the inverse of what
// the tracker does with a detection. For producers of synthetic detector outputs. Pure functions.
#pragma once

#include "omrakit/platform/detector_model.h"
#include "src/scene/oriented_bounding_box.h"
#include "src/scene/rect.h"

namespace omra {

// The model-input box (normalised 0..1, may reach outside) of a rectangle given in normalised
// captured-image coordinates (origin top-left), for an image of imageWidth x imageHeight turned by
// orientation and centre-cropped, as the detector models do.
OrientedBoundingBox imageRectToModelBox(const Rect& normalizedImageRect,
                                        ImageOrientation orientation, int imageWidth,
                                        int imageHeight);

}  // namespace omra
