// The back end's routes as plain functions of the request: validate, read and write the store,
// queue localizer jobs, answer JSON. Knows nothing of HTTP, so that every answer can be tested
// directly. Shares the store and the job runner; every method is thread-safe.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "server/job_runner.h"
#include "server/localizer_jobs.h"
#include "server/map_store.h"
#include "server/request.h"

namespace omra::server {

struct MapServiceOptions {
  // When not empty, only these developer-key digests may open or list maps.
  std::set<std::string> allowedDeveloperKeys;
  LocalizerOptions localizers;
  // Receives one line per finished localizer job. Called on job threads; must be thread-safe.
  std::function<void(std::string_view)> log;
};

class MapService {
 public:
  MapService(RecordStore& store, JobRunner& jobs, MapServiceOptions options);

  // Every route under "/beta" and "/prod": picks the handler by method and path. An unknown
  // route answers 404, a known path with another method 405.
  Answer handle(const Request& request);

  Answer createMap(const std::string& body);
  Answer createLocalizationSession(const std::string& body);
  Answer listNearbyMaps(const std::string& body);
  Answer placeAssetOnMap(const std::string& body);
  Answer findAssetsOnTheMap(const std::string& body);
  // The query parameters; absent when not given.
  Answer getBestTransform(const std::optional<std::string>& sessionId,
                          const std::optional<std::string>& localizer);
  Answer triggerImageMatcher(const std::string& body);
  Answer triggerTransforms(const std::string& body);

  static Answer error(int status, const std::string& message);

 private:
  struct Opening;  // the validated keys of a session-opening request
  std::optional<Answer> readOpening(const std::string& body, Opening& out);
  bool queue(const std::string& localizer, const std::string& mapUuid,
             const std::string& sessionUuid);

  MapStore store_;
  JobRunner& jobs_;
  MapServiceOptions options_;
};

}  // namespace omra::server
