#include "server/localizer_jobs.h"

#include <charconv>
#include <cstdio>
#include <future>

#include "server/ids.h"
#include "server/plane_records.h"
#include "server/session_records.h"

namespace omra::server {

bool isLocalizerName(const std::string& name) {
  return name == kImageMatcher || name == kSuLocalizer || name == kSuLocalizerSeeded;
}

std::string matchValueText(double value) {
  char buf[32];
  auto [ptr, ec] = std::to_chars(buf, buf + sizeof buf, static_cast<float>(value));
  return ec == std::errc() ? std::string(buf, ptr) : "0";
}

namespace {

std::optional<std::string> noFramesWarning(const std::string& localizer, const std::string& mapUuid,
                                           const std::string& sessionUuid, size_t mapFrames,
                                           size_t sessionFrames) {
  if (mapFrames > 0 && sessionFrames > 0) return std::nullopt;
  const char* what = mapFrames + sessionFrames == 0 ? "the session or of the map"
                     : sessionFrames == 0           ? "the session"
                                                    : "the map";
  return localizer + " for session " + sessionUuid + " on map " + mapUuid + " read no frames of " +
         what + "; without them it finds no transform";
}

}  // namespace

JobOutcome runLocalizer(MapStore& store, const std::string& localizer, const std::string& mapUuid,
                        const std::string& sessionUuid, const LocalizerOptions& options) {
  JobOutcome out;
  RecordStore& records = store.records();
  if (localizer == kImageMatcher) {
    // The two sessions' records are read side by side: reading and decoding is most of the run.
    std::optional<StoreError> mapError;
    auto mapRead = std::async(std::launch::async, [&] {
      auto frames = readPosedFeatures(records, mapUuid, &mapError);
      return ImageFeatureIndex(frames);
    });
    auto session = readPosedFeatures(records, sessionUuid, &out.error);
    const ImageFeatureIndex index = mapRead.get();
    if (!out.error) out.error = mapError;
    if (out.error) return out;
    out.warning = noFramesWarning(localizer, mapUuid, sessionUuid, index.size(), session.size());
    out.report = ImageMatcher(options.imageMatcher).estimate(index, session);
    out.summary = std::to_string(index.size()) + " map frames, " + std::to_string(session.size()) +
                  " session frames";
  } else {
    std::optional<Pose4> seed;
    if (localizer == kSuLocalizerSeeded) {
      auto best = store.bestTransform(sessionUuid, kImageMatcher, &out.error);
      if (out.error) return out;
      if (best && best->transform) seed = Pose4::parse(*best->transform);
      if (!seed) {
        out.summary = "no image-matcher result to seed from";
        return out;
      }
    }
    const auto mapSeen = readObservations(records, mapUuid, &out.error);
    if (out.error) return out;
    const auto sessionSeen = readObservations(records, sessionUuid, &out.error);
    if (out.error) return out;
    out.warning =
        noFramesWarning(localizer, mapUuid, sessionUuid, mapSeen.size(), sessionSeen.size());
    auto map = buildLandmarks(mapSeen);
    auto session = buildLandmarks(sessionSeen);
    out.report = SuLocalizer(options.su).estimate(map, session, seed);
    out.summary = std::to_string(map.size()) + " map landmarks, " + std::to_string(session.size()) +
                  " session landmarks";
  }
  char line[160];
  std::snprintf(line, sizeof line, "; inliers %d, residual %.3f m, match value %.3f",
                out.report.inliers, out.report.residual, out.report.matchValue);
  out.summary += line;
  if (!out.report.found) return out;
  if (options.refineWithPlanes) {
    // Unreadable planes only cost the refinement, never the result.
    std::optional<StoreError> planeError;
    auto mapPlanes = readPlanes(records, mapUuid, &planeError);
    auto sessionPlanes = readPlanes(records, sessionUuid, &planeError);
    std::optional<PlaneRefinement> refined;
    if (!planeError) {
      refined = PlaneRefiner(options.planes).refine(out.report.transform, mapPlanes, sessionPlanes);
    }
    if (refined) {
      out.report.transform = refined->transform;
      std::snprintf(line, sizeof line, "; refined on %d wall(s), %d horizontal plane(s)",
                    refined->walls, refined->horizontal);
      out.summary += line;
    }
    // Where the map could settle the transform fully but this session's planes did not yet, the
    // result is worth less, so that the kit takes a fully settled one when it comes.
    if (!planeError && (!refined || !refined->bothWays) &&
        PlaneRefiner(options.planes).canFix(mapPlanes)) {
      out.report.matchValue *= 0.5;
      out.summary += "; not settled by planes, match value halved";
    }
  }
  TransformResultModel result;
  result.sessionId = sessionUuid;
  result.timestamp = uniqueSeconds();
  result.matchValue = matchValueText(out.report.matchValue);
  result.transform = out.report.transform.toText();
  result.localizer = localizer;
  result.suppress = false;
  out.error = store.addTransform(result);
  out.wrote = !out.error;
  return out;
}

}  // namespace omra::server
