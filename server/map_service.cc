#include "server/map_service.h"

#include <cmath>
#include <map>

#include "server/account.h"
#include "server/body_reader.h"
#include "server/ids.h"
#include "server/json_text.h"
#include "server/record_batch.h"
#include "src/foundation/json_reader.h"

namespace omra::server {
namespace {

constexpr int kBadRequest = 400;
constexpr int kUnauthorized = 401;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kTooManyRequests = 429;
constexpr int kUnavailable = 503;
// Bounds the memory of the ownership answers; past it they are learnt again.
constexpr size_t kMaxOwnedEntries = 200000;
// DynamoDB's limit on a range key, which an asset id is.
constexpr size_t kMaxAssetIdBytes = 1024;

Answer storeFailure(const StoreError& e) {
  return MapService::error(kUnavailable, "Store unavailable: " + e.message);
}

Answer writeFailure(const WriteFailure& f) {
  if (f.itemRefused) return MapService::error(kBadRequest, f.error.message);
  return storeFailure(f.error);
}

}  // namespace

struct MapService::Opening {
  std::string appId, userId, mapId;
  std::optional<GeoLocation> location;
};

MapService::MapService(RecordStore& store, JobRunner& jobs, MapServiceOptions options)
    : store_(store),
      jobs_(jobs),
      options_(std::move(options)),
      follower_(options_.follow),
      quotas_(options_.quotas, options_.clock) {
  for (const std::string& digest : options_.allowedDeveloperKeys) {
    allowedAccounts_.insert(accountHash(digest));
  }
  options_.allowedDeveloperKeys.clear();  // only the hashes stay
  // Maps are read and indexed once, then reused by every localizer run.
  if (!options_.localizers.cache) options_.localizers.cache = std::make_shared<MapIndexCache>();
  if (!options_.localizers.sessions) {
    options_.localizers.sessions = std::make_shared<SessionSceneCache>();
  }
}

Answer MapService::handle(const Request& request) {
  struct RouteEntry {
    const char* method;
    const char* path;
    Route handler;
  };
  static constexpr RouteEntry kRoutes[] = {
      {"POST", "/maps/create_map", &MapService::createMap},
      {"POST", "/maps/create_localization_session", &MapService::createLocalizationSession},
      {"POST", "/maps/list_nearby_maps", &MapService::listNearbyMaps},
      {"POST", "/maps/place_asset_on_map", &MapService::placeAssetOnMap},
      {"POST", "/maps/find_assets_on_the_map", &MapService::findAssetsOnTheMap},
      {"GET", "/maps/get_best_transform", &MapService::getBestTransform},
      {"POST", "/full-image-matcher", &MapService::triggerImageMatcher},
      {"POST", "/linear-optimizer/initial_transforms", &MapService::triggerTransforms},
      {"POST", "/records/batch_write", &MapService::writeRecords},
  };
  std::string_view path = request.path;
  const RouteEntry* route = nullptr;
  for (std::string_view stage : {"/beta", "/prod"}) {
    if (!path.starts_with(stage)) continue;
    path.remove_prefix(stage.size());
    for (const RouteEntry& r : kRoutes) {
      if (path == r.path) route = &r;
    }
    break;
  }
  if (route == nullptr) {
    return error(kNotFound, "Unknown route " + request.method + " " + request.path);
  }
  if (request.method != route->method) {
    return error(405, "Use " + std::string(route->method) + " for " + std::string(path));
  }
  Caller caller;
  caller.digest = request.header(kAccountHeader);
  if (!isAccountDigest(caller.digest)) {
    return error(kUnauthorized, "Missing or malformed X-Omra-Account header");
  }
  caller.account = accountHash(caller.digest);
  if (!allowedAccounts_.empty() && !allowedAccounts_.contains(caller.account)) {
    return error(kForbidden, "Invalid developer key");
  }
  const AccountQuotas::Verdict verdict = quotas_.charge(caller.account, request.body.size());
  if (!verdict.allowed) {
    Answer a = error(kTooManyRequests, "Too many requests for this account");
    a.headers["Retry-After"] = std::to_string(verdict.retryAfterSeconds);
    return a;
  }
  return (this->*route->handler)(caller, request);
}

Answer MapService::error(int status, const std::string& message) {
  // Messages may quote outside input (a query parameter): they must still encode.
  return {status, Json{{"errorMessage", toValidUtf8(message)}}};
}

// A body that names a developer key must name the caller's.
static std::optional<Answer> keyMismatch(const std::string& bodyKey, const std::string& digest) {
  if (bodyKey == digest) return std::nullopt;
  return MapService::error(kForbidden, "The developer key does not match the account");
}

std::optional<Answer> MapService::readOpening(const Caller& caller, const std::string& body,
                                              Opening& out) {
  BodyReader r(body);
  out.appId = r.string("app_id");
  out.userId = r.string("user_id", true);
  out.mapId = r.string("map_id");
  const std::string developerKey = r.string("developer_key");
  for (const char* key :
       {"pod_version", "data_version", "device_version", "device_model", "device_uuid"}) {
    r.optionalString(key);
  }
  r.optionalBoolean("use_beta");
  const char* locationKeys[] = {"long", "lat", "alt", "horAccuracy", "verAccuracy"};
  std::optional<double> v[5];
  int present = 0;
  for (int i = 0; i < 5; ++i) {
    v[i] = r.optionalNumber(locationKeys[i]);
    if (r.json().contains(locationKeys[i])) ++present;
  }
  if (present != 0 && present != 5 && r.ok()) {
    r.fail("A location needs all of \"long\", \"lat\", \"alt\", \"horAccuracy\", \"verAccuracy\"");
  }
  if (r.ok() && present == 5) {
    if (std::abs(*v[0]) > 180) r.fail("\"long\" must lie within [-180, 180]");
    if (std::abs(*v[1]) > 90) r.fail("\"lat\" must lie within [-90, 90]");
    out.location = GeoLocation{*v[0], *v[1], *v[2], *v[3], *v[4]};
  }
  if (!r.ok()) return error(kBadRequest, r.error());
  return keyMismatch(developerKey, caller.digest);
}

Answer MapService::createMap(const Caller& caller, const Request& request) {
  Opening o;
  if (auto bad = readOpening(caller, request.body, o)) return *bad;
  MapRecord m{newUuid(), o.appId, caller.account, o.userId, o.mapId, uniqueMicros(), o.location};
  if (auto f = store_.addMap(m)) return writeFailure(*f);
  return {200, Json{{"uuid", m.uuid}}};
}

Answer MapService::createLocalizationSession(const Caller& caller, const Request& request) {
  Opening o;
  if (auto bad = readOpening(caller, request.body, o)) return *bad;
  std::optional<StoreError> e;
  auto map = store_.newestMap(o.appId, caller.account, o.mapId, &e);
  if (e) return storeFailure(*e);
  if (!map) return error(kNotFound, "Cannot find the map " + o.mapId);
  LocalizationSessionRecord s{newUuid(),      map->uuid, o.appId,
                              caller.account, o.userId,  uniqueMicros()};
  if (auto se = store_.addSession(s)) return storeFailure(*se);
  return {200, Json{{"session_uuid", s.uuid}, {"map_uuid", map->uuid}}};
}

Answer MapService::listNearbyMaps(const Caller& caller, const Request& request) {
  BodyReader r(request.body);
  const std::string appId = r.string("app_id");
  const double longitude = r.number("longitude");
  const double latitude = r.number("latitude");
  const double longitudeDelta = r.number("longitude_delta");
  const double latitudeDelta = r.number("latitude_delta");
  const std::string developerKey = r.string("developer_key");
  for (const char* key : {"pod_version", "data_version", "device_version", "device_model"}) {
    r.optionalString(key);
  }
  const std::optional<std::string> userId = r.optionalString("user_id");
  const std::optional<double> limit = r.optionalNumber("limit");
  const std::optional<std::string> token = r.optionalString("page_token");
  if (r.ok() && (longitudeDelta < 0 || latitudeDelta < 0)) {
    r.fail("\"longitude_delta\" and \"latitude_delta\" must not be negative");
  }
  if (r.ok() && limit && (*limit < 1 || *limit > kMaxNearbyMaps || *limit != std::floor(*limit))) {
    r.fail("\"limit\" must be a whole number from 1 to " + std::to_string(kMaxNearbyMaps));
  }
  std::optional<NearbyCursor> after;
  if (r.ok() && token && !(after = parseNearbyToken(*token))) {
    r.fail("\"page_token\" is not a token this route gave out");
  }
  if (!r.ok()) return error(kBadRequest, r.error());
  if (auto bad = keyMismatch(developerKey, caller.digest)) return *bad;
  if (auto e = store_.ensureNearbyIndexed(appId, caller.account)) return storeFailure(*e);
  NearbyQuery q;
  q.appId = appId;
  q.account = caller.account;
  q.box = GeoBox{latitude, longitude, latitudeDelta / 2, longitudeDelta / 2};
  q.userId = userId;
  q.limit = limit ? static_cast<size_t>(*limit) : kMaxNearbyMaps;
  q.after = std::move(after);
  std::optional<StoreError> e;
  NearbyPage page = store_.nearbyMaps(q, &e);
  if (e) return storeFailure(*e);
  // Written as text: a page is a hundred maps, and a document of them costs more than the search.
  Answer a;
  std::string& out = a.text;
  out.reserve(page.maps.size() * 192 + 2);
  out += '[';
  for (const NearbyMap& n : page.maps) {
    const MapRecord& m = n.map;
    if (out.size() > 1) out += ',';
    out += "{\"user_id\":";
    appendJsonString(out, m.userId);
    out += ",\"map_id\":";
    appendJsonString(out, m.mapId);
    const std::pair<const char*, double> numbers[] = {
        {",\"latitude\":", m.location->latitude},
        {",\"longitude\":", m.location->longitude},
        {",\"altitude\":", m.location->altitude},
        {",\"vertical_accuracy\":", m.location->verticalAccuracy},
        {",\"horizontal_accuracy\":", m.location->horizontalAccuracy}};
    for (const auto& [name, value] : numbers) {
      out += name;
      appendJsonNumber(out, value);
    }
    out += '}';
  }
  out += ']';
  if (page.next) a.headers[kNextPageHeader] = nearbyTokenText(*page.next);
  return a;
}

Answer MapService::placeAssetOnMap(const Caller& caller, const Request& request) {
  BodyReader r(request.body);
  const std::string mapUuid = r.string("map_uuid");
  const Json* list = r.array("placements");
  const double timestamp = r.number("timestamp");
  std::vector<PlacementRecord> placements;
  const std::string placementId = newUuid();
  if (list) {
    for (size_t i = 0; i < list->size() && r.ok(); ++i) {
      BodyReader p((*list)[i], "placements[" + std::to_string(i) + "]");
      PlacementRecord rec;
      rec.assetId = p.string("asset_id");
      rec.x = p.coordinate("x");
      rec.y = p.coordinate("y");
      rec.z = p.coordinate("z");
      rec.orientation = p.number("orientation");
      if (p.ok() && rec.assetId.size() > kMaxAssetIdBytes) {
        p.fail("placements[" + std::to_string(i) + "] \"asset_id\" is over " +
               std::to_string(kMaxAssetIdBytes) + " bytes");
      }
      rec.placementId = placementId;
      rec.timestamp = timestamp;
      if (!p.ok()) r.fail(p.error());
      placements.push_back(std::move(rec));
    }
  }
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
  auto map = ownMap(caller, mapUuid, &e);
  if (e) return storeFailure(*e);
  if (!map) return error(kNotFound, "Cannot find the map " + mapUuid);
  if (auto f = store_.place(mapUuid, std::move(placements))) return writeFailure(*f);
  return {200, Json{{"placement_id", placementId}}};
}

Answer MapService::findAssetsOnTheMap(const Caller& caller, const Request& request) {
  BodyReader r(request.body);
  const std::string mapUuid = r.string("map_uuid");
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
  // Another account's map answers as an unknown one does: no placements.
  auto map = ownMap(caller, mapUuid, &e);
  if (e) return storeFailure(*e);
  if (!map) return {200, Json{{"placements", Json::array()}}};
  auto placements = store_.placements(mapUuid, &e);
  if (e) return storeFailure(*e);
  Json list = Json::array();
  for (const PlacementRecord& p : placements) {
    list.push_back(
        Json{{"placement", Json{{"x", p.x}, {"y", p.y}, {"z", p.z}, {"ori", p.orientation}}},
             {"asset", Json{{"id", p.assetId}}}});
  }
  return {200, Json{{"placements", std::move(list)}}};
}

Answer MapService::getBestTransform(const Caller& caller, const Request& request) {
  auto param = [&](const char* name) -> std::optional<std::string> {
    auto it = request.query.find(name);
    if (it == request.query.end()) return std::nullopt;
    return it->second;
  };
  const std::optional<std::string> sessionId = param("session_id");
  const std::optional<std::string> localizer = param("localizer");
  if (!sessionId || sessionId->empty()) {
    return error(kBadRequest, "Missing query parameter \"session_id\"");
  }
  if (!localizer || localizer->empty()) {
    return error(kBadRequest, "Missing query parameter \"localizer\"");
  }
  if (!isLocalizerName(*localizer)) return error(kBadRequest, "Unknown localizer " + *localizer);
  std::optional<StoreError> e;
  // Another account's session answers as an unknown one does: no result.
  auto session = ownSession(caller, *sessionId, &e);
  if (e) return storeFailure(*e);
  if (!session) return {200, Json::object()};
  auto best = store_.bestTransform(*sessionId, *localizer, &e);
  if (e) return storeFailure(*e);
  if (!best) return {200, Json::object()};
  Json out{{"MatchValue", *best->matchValue},
           {"Localizer", *best->localizer},
           {"Transform", *best->transform}};
  if (best->timestamp) out["Timestamp"] = *best->timestamp;
  return {200, std::move(out)};
}

bool MapService::queue(const std::string& localizer, const std::string& mapUuid,
                       const std::string& sessionUuid) {
  follower_.asked(sessionUuid, mapUuid, localizer, SessionFollower::Clock::now());
  return jobs_.trigger(sessionUuid + "/" + localizer, [this, localizer, mapUuid, sessionUuid] {
    JobOutcome out = runLocalizer(store_, localizer, mapUuid, sessionUuid, options_.localizers);
    if (out.wrote) follower_.answered(sessionUuid);
    if (!options_.log) return;
    if (out.warning) options_.log(kWarningPrefix + *out.warning);
    std::string line = localizer + " for session " + sessionUuid + ": " + out.summary;
    if (out.error) line += "; store error: " + out.error->message;
    line += out.wrote ? "; result written" : "; no result";
    options_.log(line);
  });
}

Answer MapService::triggerImageMatcher(const Caller& caller, const Request& request) {
  BodyReader r(request.body);
  const std::string sessionUuid = r.string("uuid");
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
  auto session = ownSession(caller, sessionUuid, &e);
  if (e) return storeFailure(*e);
  if (!session) return error(kNotFound, "Cannot find the localization session " + sessionUuid);
  if (!queue(kImageMatcher, session->mapUuid, sessionUuid)) {
    return error(kUnavailable, "The server is stopping");
  }
  return {200, Json{{"status", "queued"}}};
}

Answer MapService::triggerTransforms(const Caller& caller, const Request& request) {
  BodyReader r(request.body);
  const std::string mapUuid = r.string("mapping_session_id");
  const std::string sessionUuid = r.string("localization_session_id");
  const bool seeded = r.boolean("is_seeded");
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
  auto session = ownSession(caller, sessionUuid, &e);
  if (e) return storeFailure(*e);
  if (!session) return error(kNotFound, "Cannot find the localization session " + sessionUuid);
  auto map = ownMap(caller, mapUuid, &e);
  if (e) return storeFailure(*e);
  if (!map) return error(kNotFound, "Cannot find the map " + mapUuid);
  // The localizer compares the session with its own map, never with another one.
  if (session->mapUuid != mapUuid) {
    return error(kBadRequest, "The map " + mapUuid +
                                  " is not the map of the localization session " + sessionUuid);
  }
  if (!queue(seeded ? kSuLocalizerSeeded : kSuLocalizer, mapUuid, sessionUuid)) {
    return error(kUnavailable, "The server is stopping");
  }
  return {200, Json{{"status", "queued"}}};
}

std::optional<MapRecord> MapService::ownMap(const Caller& caller, const std::string& uuid,
                                            std::optional<StoreError>* error) {
  auto map = store_.map(uuid, error);
  if (!map || map->account != caller.account) return std::nullopt;
  return map;
}

std::optional<LocalizationSessionRecord> MapService::ownSession(const Caller& caller,
                                                                const std::string& uuid,
                                                                std::optional<StoreError>* error) {
  auto session = store_.session(uuid, error);
  if (!session || session->account != caller.account) return std::nullopt;
  return session;
}

bool MapService::ownsRecordSession(const Caller& caller, const std::string& uuid,
                                   std::optional<StoreError>* error) {
  const std::string key = caller.account + "/" + uuid;
  {
    std::lock_guard lock(ownedMu_);
    if (owned_.contains(key)) return true;
  }
  bool owned = ownMap(caller, uuid, error).has_value();
  if (!owned && !(error && *error)) owned = ownSession(caller, uuid, error).has_value();
  if (owned) {
    std::lock_guard lock(ownedMu_);
    if (owned_.size() >= kMaxOwnedEntries) owned_.clear();
    owned_.insert(key);
  }
  return owned;
}

Answer MapService::writeRecords(const Caller& caller, const Request& request) {
  std::optional<BatchProblem> problem;
  RecordBatch batch = parseRecordBatch(request.body, &problem);
  auto answer = [](int status, const BatchProblem& p) {
    Answer a = error(status, p.message);
    if (p.table) {
      a.body["table"] = *p.table;
      a.body["index"] = p.index;
    }
    return a;
  };
  if (problem) return answer(kBadRequest, *problem);
  std::set<std::string> checked;
  for (size_t i = 0; i < batch.items.size(); ++i) {
    const std::string& session = batch.items[i].item.at("SessionId").text;
    if (!checked.insert(session).second) continue;
    std::optional<StoreError> e;
    const bool owned = ownsRecordSession(caller, session, &e);
    if (e) return storeFailure(*e);
    if (!owned) {
      return answer(kNotFound,
                    {"Cannot find the session " + session, batch.items[i].table, batch.indexes[i]});
    }
  }
  if (auto e = store_.records().writeBatch(batch.items)) return storeFailure(*e);
  // What the kit's scan events would not ask for yet: the new frames may already settle it.
  for (const std::string& session : checked) {
    auto rerun = follower_.recordsArrived(session, SessionFollower::Clock::now());
    if (!rerun) continue;
    for (const std::string& localizer : rerun->localizers)
      queue(localizer, rerun->mapUuid, session);
  }
  std::map<std::string, size_t> counts;  // tables in name order, whatever the body's order
  for (const TableItem& t : batch.items) ++counts[t.table];
  Json stored = Json::object();
  for (const auto& [table, n] : counts) stored[table] = n;
  return {200, Json{{"stored", std::move(stored)}, {"UnprocessedItems", Json::object()}}};
}

}  // namespace omra::server
