// The kit's type-level settings. A host may read and write them at any time from any thread;
// each is an atomic. Parts of the kit read a setting when the work that needs it starts, so a
// change affects work started afterwards (a cloud client keeps the endpoint choice it was made
// with).
#pragma once

#include <atomic>
#include <cstdint>

namespace omra {

struct OmraSettings {
  // Part of the host-visible settings; nothing in the kit reads it.
  static inline std::atomic<int64_t> TIMEOUT_THRESHOLD{60};
  // Selects the beta rather than the production endpoints.
  static inline std::atomic<bool> USE_BETA_ALGO{false};
  // Seconds between two polls for stored assets in localization.
  static inline std::atomic<int64_t> RETRIEVE_ASSETS_INTERVAL{1};
  // Also record raw feature points (the heavy map).
  static inline std::atomic<bool> BUILD_HEAVY_MAP{false};
};

}  // namespace omra
