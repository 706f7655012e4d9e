// The back end's routes as plain functions of the request: check the account, validate, read and
// write the store, queue localizer jobs, answer JSON. Knows nothing of HTTP, so that every answer
// can be tested directly. Shares the store and the job runner; every method is thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "server/account_quotas.h"
#include "server/job_runner.h"
#include "server/localizer_jobs.h"
#include "server/map_store.h"
#include "server/request.h"
#include "server/session_follower.h"

namespace omra::server {

// The most maps one nearby listing answers, and its default; further ones come by page token.
inline constexpr size_t kMaxNearbyMaps = 100;
// The answer header carrying the token of the next nearby page, when there is one.
inline constexpr const char* kNextPageHeader = "X-Omra-Next-Page-Token";

struct MapServiceOptions {
  // When not empty, only these accounts (developer-key digests) are served.
  std::set<std::string> allowedDeveloperKeys;
  QuotaOptions quotas;
  LocalizerOptions localizers;
  // Receives one line per finished localizer job. Called on job threads; must be thread-safe.
  std::function<void(std::string_view)> log;
  // Records arriving for a session the kit asked about run its localizers again.
  SessionFollowerOptions follow;
  // The quotas' clock; tests set it.
  std::function<AccountQuotas::Clock::time_point()> clock = AccountQuotas::Clock::now;
};

class MapService {
 public:
  MapService(RecordStore& store, JobRunner& jobs, MapServiceOptions options);

  // Every route under "/beta" and "/prod": picks the handler by method and path, then checks the
  // account header, the allow-list and the account's quotas. An unknown route answers 404, a
  // known path with another method 405.
  Answer handle(const Request& request);

  static Answer error(int status, const std::string& message);

 private:
  // Who a request acts for: the digest from its header and the hash the store keeps.
  struct Caller {
    std::string digest, account;
  };
  struct Opening;  // the validated keys of a session-opening request
  using Route = Answer (MapService::*)(const Caller&, const Request&);

  Answer createMap(const Caller& caller, const Request& request);
  Answer createLocalizationSession(const Caller& caller, const Request& request);
  Answer listNearbyMaps(const Caller& caller, const Request& request);
  Answer placeAssetOnMap(const Caller& caller, const Request& request);
  Answer findAssetsOnTheMap(const Caller& caller, const Request& request);
  Answer getBestTransform(const Caller& caller, const Request& request);
  Answer triggerImageMatcher(const Caller& caller, const Request& request);
  Answer triggerTransforms(const Caller& caller, const Request& request);
  Answer writeRecords(const Caller& caller, const Request& request);

  std::optional<Answer> readOpening(const Caller& caller, const std::string& body, Opening& out);
  // The map or localization session of that account, or none (another account's, or absent).
  std::optional<MapRecord> ownMap(const Caller& caller, const std::string& uuid,
                                  std::optional<StoreError>* error);
  std::optional<LocalizationSessionRecord> ownSession(const Caller& caller, const std::string& uuid,
                                                      std::optional<StoreError>* error);
  // True when uuid is a map or localization session of the account. Remembers the yes answers:
  // ownership never changes.
  bool ownsRecordSession(const Caller& caller, const std::string& uuid,
                         std::optional<StoreError>* error);
  bool queue(const std::string& localizer, const std::string& mapUuid,
             const std::string& sessionUuid);

  MapStore store_;
  JobRunner& jobs_;
  MapServiceOptions options_;
  SessionFollower follower_;
  std::set<std::string> allowedAccounts_;  // hashes of the allowed digests
  AccountQuotas quotas_;

  std::mutex ownedMu_;                     // guards owned_
  std::unordered_set<std::string> owned_;  // "account/session" pairs known to be owned
};

}  // namespace omra::server
