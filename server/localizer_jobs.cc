#include "server/localizer_jobs.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "server/ids.h"

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
  // The map side comes from the cache (read and indexed once); the session side from its own
  // cache (only records new since the last run are read) or read anew.
  const bool images = localizer == kImageMatcher;
  std::shared_ptr<const MapIndex> map;
  bool built = true;
  if (options.cache) {
    map = options.cache->get(records, mapUuid, &out.error, &built);
  } else {
    map = std::make_shared<const MapIndex>(readSessionScene(records, mapUuid, true, &out.error));
  }
  if (out.error || !map) return out;
  std::shared_ptr<NeighbourMemo> memo;
  const SessionScene session = [&] {
    if (!options.sessions) return readSessionScene(records, sessionUuid, images, &out.error);
    SessionSceneCache::View view = options.sessions->get(records, sessionUuid, images, &out.error);
    memo = std::move(view.memo);
    return std::move(view.scene);
  }();
  if (out.error) return out;
  const SceneEvidence& mapScene = map->evidence();
  out.warning = images ? noFramesWarning(localizer, mapUuid, sessionUuid, map->images().size(),
                                         session.frames.size())
                       : noFramesWarning(localizer, mapUuid, sessionUuid, map->stats().records,
                                         session.stats.records);

  // Proposals.
  std::vector<Pose4> proposals;
  const SuLocalizer su(options.su);
  if (images) {
    const auto groups =
        ImageMatcher(options.imageMatcher)
            .proposals(map->images(), session.frames, options.imageProposals, memo.get());
    for (const LocalizerReport& g : groups) {
      if (!g.found) continue;
      if (proposals.empty()) out.report = g;
      proposals.push_back(g.transform);
      // The objects near where the views put them may settle the proposal better than the views.
      const LocalizerReport near =
          su.estimate(mapScene.landmarks, session.evidence.landmarks, g.transform);
      if (near.found) proposals.push_back(near.transform);
    }
    out.summary = std::to_string(map->images().size()) + " map frames, " +
                  std::to_string(session.frames.size()) + " session frames, " +
                  std::to_string(groups.size()) + " view group(s)";
  } else {
    const std::vector<LocalizerReport> found = su.estimateSeveral(
        mapScene.landmarks, session.evidence.landmarks, seed, options.objectProposals);
    if (!found.empty()) out.report = found.front();
    for (const LocalizerReport& r : found) {
      if (r.found) proposals.push_back(r.transform);
    }
    out.summary = std::to_string(mapScene.landmarks.size()) + " map landmarks, " +
                  std::to_string(session.evidence.landmarks.size()) + " session landmarks, " +
                  std::to_string(out.report.hypotheses) + " hypotheses, " +
                  std::to_string(proposals.size()) + " found";
  }
  if (options.refineWithPlanes) {
    const PlaneRefiner planes(options.planes);
    const size_t raw = proposals.size();
    for (size_t k = 0; k < raw; ++k) {
      auto refined = planes.refine(proposals[k], mapScene.planes, session.evidence.planes);
      if (refined) proposals.push_back(refined->transform);
    }
  }
  out.summary += built ? " (map indexed now)" : " (map index reused)";
  out.summary += map->stats().text() + session.stats.text();

  // Each proposal settled with all the evidence, its error judged where the map's assets stand;
  // the best verified one is the answer.
  std::vector<Vec3> assets;
  if (!proposals.empty()) {
    for (const PlacementRecord& p : store.placements(mapUuid, &out.error)) {
      if (std::isfinite(p.x + p.y + p.z)) assets.push_back({p.x, p.y, p.z});
    }
    if (out.error) return out;
  }
  const JointRefiner joint(options.joint);
  for (const Pose4& p : proposals) {
    JointResult r = joint.refine(p, mapScene, map->points(), session.evidence, assets);
    const bool better = !out.checked || (r.verified != out.checked->verified
                                             ? r.verified
                                             : r.predictedError < out.checked->predictedError);
    if (better) out.checked = std::move(r);
  }
  char line[320];
  std::snprintf(line, sizeof line, "; proposal inliers %d, match value %.3f", out.report.inliers,
                out.report.matchValue);
  out.summary += line;
  if (!out.checked) {
    out.summary += "; nothing to check";
    return out;
  }
  const JointResult& c = *out.checked;
  std::snprintf(line, sizeof line,
                "; checked %zu proposal(s): %d object(s) of %d near (%d label(s)), %d wall(s) (%d "
                "disagreeing), %d horizontal (%d by edges), %d outline(s), %d point(s) of %d near, "
                "predicted error %.3f m (spread %.2f)",
                proposals.size(), c.objects, c.objectsNear, c.labels, c.walls, c.wallsDisagreeing,
                c.horizontal, c.edges, c.outlines, c.points, c.pointsNear, c.predictedError,
                c.spread);
  out.summary += line;
  out.summary += ", transform " + c.transform.toText();
  if (!c.verified) {
    out.summary += "; not verified: " + c.why;
    return out;
  }
  TransformResultModel result;
  result.sessionId = sessionUuid;
  result.timestamp = uniqueSeconds();
  result.matchValue = matchValueText(c.matchValue);
  result.transform = c.transform.toText();
  result.localizer = localizer;
  result.suppress = false;
  out.error = store.addTransform(result);
  out.wrote = !out.error;
  return out;
}

}  // namespace omra::server
