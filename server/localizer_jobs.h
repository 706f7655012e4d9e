// One run of a localizer for a localization session against its map: read the session's records
// (the map's come from the cache), propose transforms, settle each with everything both sessions
// saw, and write a "Transformations" item only for one the geometry of both sessions agrees with.
// Free functions; thread-safe.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "server/localizers/image_matcher.h"
#include "server/localizers/joint_refiner.h"
#include "server/localizers/map_index_cache.h"
#include "server/localizers/plane_refiner.h"
#include "server/localizers/su_localizer.h"
#include "server/map_store.h"
#include "server/session_scene_cache.h"

namespace omra::server {

inline constexpr const char* kImageMatcher = "full_image_matcher";
inline constexpr const char* kSuLocalizer = "su_localizer";
inline constexpr const char* kSuLocalizerSeeded = "su_localizer_seeded";

bool isLocalizerName(const std::string& name);

// Log lines that need the operator's attention start with this.
inline constexpr const char* kWarningPrefix = "warning: ";

struct LocalizerOptions {
  SuLocalizerOptions su;
  ImageMatcherOptions imageMatcher;
  // A proposal is also tried after its walls settled it, when they pair up.
  bool refineWithPlanes = true;
  PlaneRefinerOptions planes;
  JointRefinerOptions joint;
  // Image-matcher groups tried, best first.
  int imageProposals = 3;
  // Object hypotheses tried, best first.
  int objectProposals = 3;
  // Maps' indexes kept between runs; none: each run reads and indexes the map anew.
  std::shared_ptr<MapIndexCache> cache;
  // Localization sessions' records and matches kept between runs; none: each run reads the
  // session anew and matches all its frames.
  std::shared_ptr<SessionSceneCache> sessions;
};

struct JobOutcome {
  LocalizerReport report;              // the proposal's own estimate
  std::optional<JointResult> checked;  // the best settled transform, verified or not
  bool wrote = false;
  std::optional<StoreError> error;
  std::string summary;  // one line for the log
  // Set when the run read no frames of the session or of the map: it could find nothing, and the
  // usual cause (records that never reached the server) is worth a warning of its own.
  std::optional<std::string> warning;
};

// localizer: one of the three names. mapUuid: the mapping session; sessionUuid: the
// localization session, under which the result is written.
JobOutcome runLocalizer(MapStore& store, const std::string& localizer, const std::string& mapUuid,
                        const std::string& sessionUuid, const LocalizerOptions& options);

// The "MatchValue" text: the shortest text of the value as a 32-bit float, as the kit reads it.
std::string matchValueText(double value);

}  // namespace omra::server
