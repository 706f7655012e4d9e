// A detector model that returns what a script gives it: for tests and the simulator. Owned by the
// caller; run() is thread-safe (the script runs under its own mutex, one call at a time; the
// counters can be read while it runs).
#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "omrakit/platform/detector_model.h"

namespace omra {

// Called once per run with the image and how it was to be oriented and fitted.
using DetectorScript =
    std::function<DetectorResult(const PixelBuffer& image, ImageOrientation, CropAndScale)>;

class ScriptedDetectorModel : public DetectorModel {
 public:
  explicit ScriptedDetectorModel(DetectorScript script);
  // Every run returns result.
  static std::shared_ptr<ScriptedDetectorModel> returning(DetectorResult result);
  // The four outputs in the order the kit reads them (aux may be empty).
  static DetectorResult outputs(Tensor scores, Tensor boxes, Tensor activation, Tensor aux = {});

  // Thread-safe.
  DetectorResult run(const PixelBuffer& image, ImageOrientation orientation,
                     CropAndScale crop) override;

  // Thread-safe.
  int calls() const;
  std::vector<ImageOrientation> orientations() const;  // of every run, in order
  std::vector<CropAndScale> crops() const;

 private:
  std::mutex scriptMutex_;
  DetectorScript script_;  // guarded by scriptMutex_
  mutable std::mutex mutex_;
  std::vector<ImageOrientation> orientations_;  // guarded by mutex_
  std::vector<CropAndScale> crops_;             // guarded by mutex_
};

}  // namespace omra
