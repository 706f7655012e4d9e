#include "server/map_service.h"

#include <cmath>

#include "server/body_reader.h"
#include "server/ids.h"
#include "src/foundation/json_reader.h"

namespace omra::server {
namespace {

constexpr int kBadRequest = 400;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kUnavailable = 503;

Answer storeFailure(const StoreError& e) {
  return MapService::error(kUnavailable, "Store unavailable: " + e.message);
}

// Longitude difference folded into [-180, 180], so that a box may straddle the date line.
double longitudeGap(double a, double b) {
  double d = std::fmod(a - b, 360.0);
  if (d > 180) d -= 360;
  if (d < -180) d += 360;
  return std::abs(d);
}

}  // namespace

struct MapService::Opening {
  std::string appId, userId, mapId, developerKey;
  std::optional<GeoLocation> location;
};

MapService::MapService(RecordStore& store, JobRunner& jobs, MapServiceOptions options)
    : store_(store), jobs_(jobs), options_(std::move(options)) {}

Answer MapService::handle(const Request& request) {
  using Body = Answer (MapService::*)(const std::string&);
  struct PostRoute {
    const char* path;
    Body method;
  };
  static constexpr PostRoute kPostRoutes[] = {
      {"/maps/create_map", &MapService::createMap},
      {"/maps/create_localization_session", &MapService::createLocalizationSession},
      {"/maps/list_nearby_maps", &MapService::listNearbyMaps},
      {"/maps/place_asset_on_map", &MapService::placeAssetOnMap},
      {"/maps/find_assets_on_the_map", &MapService::findAssetsOnTheMap},
      {"/full-image-matcher", &MapService::triggerImageMatcher},
      {"/linear-optimizer/initial_transforms", &MapService::triggerTransforms},
  };
  std::string_view path = request.path;
  bool staged = false;
  for (std::string_view stage : {"/beta", "/prod"}) {
    if (path.substr(0, stage.size()) == stage) {
      path.remove_prefix(stage.size());
      staged = true;
      break;
    }
  }
  if (staged) {
    if (path == "/maps/get_best_transform") {
      if (request.method != "GET") return error(405, "Use GET for " + std::string(path));
      auto param = [&](const char* name) -> std::optional<std::string> {
        auto it = request.query.find(name);
        if (it == request.query.end()) return std::nullopt;
        return it->second;
      };
      return getBestTransform(param("session_id"), param("localizer"));
    }
    for (const PostRoute& route : kPostRoutes) {
      if (path != route.path) continue;
      if (request.method != "POST") return error(405, "Use POST for " + std::string(path));
      return (this->*route.method)(request.body);
    }
  }
  return error(kNotFound, "Unknown route " + request.method + " " + request.path);
}

Answer MapService::error(int status, const std::string& message) {
  // Messages may quote outside input (a query parameter): they must still encode.
  return {status, Json{{"errorMessage", toValidUtf8(message)}}};
}

std::optional<Answer> MapService::readOpening(const std::string& body, Opening& out) {
  BodyReader r(body);
  out.appId = r.string("app_id");
  out.userId = r.string("user_id", true);
  out.mapId = r.string("map_id");
  out.developerKey = r.string("developer_key");
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
  if (!options_.allowedDeveloperKeys.empty() &&
      !options_.allowedDeveloperKeys.contains(out.developerKey)) {
    return error(kForbidden, "Invalid developer key");
  }
  return std::nullopt;
}

Answer MapService::createMap(const std::string& body) {
  Opening o;
  if (auto bad = readOpening(body, o)) return *bad;
  MapRecord m{newUuid(), o.appId, o.developerKey, o.userId, o.mapId, uniqueMicros(), o.location};
  if (auto e = store_.addMap(m)) return storeFailure(*e);
  return {200, Json{{"uuid", m.uuid}}};
}

Answer MapService::createLocalizationSession(const std::string& body) {
  Opening o;
  if (auto bad = readOpening(body, o)) return *bad;
  std::optional<StoreError> e;
  auto map = store_.newestMap(o.appId, o.developerKey, o.mapId, &e);
  if (e) return storeFailure(*e);
  if (!map) return error(kNotFound, "Cannot find the map " + o.mapId);
  LocalizationSessionRecord s{newUuid(),      map->uuid, o.appId,
                              o.developerKey, o.userId,  uniqueMicros()};
  if (auto se = store_.addSession(s)) return storeFailure(*se);
  return {200, Json{{"session_uuid", s.uuid}, {"map_uuid", map->uuid}}};
}

Answer MapService::listNearbyMaps(const std::string& body) {
  BodyReader r(body);
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
  if (r.ok() && (longitudeDelta < 0 || latitudeDelta < 0)) {
    r.fail("\"longitude_delta\" and \"latitude_delta\" must not be negative");
  }
  if (!r.ok()) return error(kBadRequest, r.error());
  if (!options_.allowedDeveloperKeys.empty() &&
      !options_.allowedDeveloperKeys.contains(developerKey)) {
    return error(kForbidden, "Invalid developer key");
  }
  std::optional<StoreError> e;
  auto maps = store_.accountMaps(appId, developerKey, &e);
  if (e) return storeFailure(*e);
  // The box's edges belong to it; the slack absorbs the rounding of the halved deltas.
  constexpr double kSlack = 1e-9;
  Json out = Json::array();
  for (const MapRecord& m : maps) {
    if (!m.location || (userId && m.userId != *userId)) continue;
    if (std::abs(m.location->latitude - latitude) > latitudeDelta / 2 + kSlack) continue;
    if (longitudeGap(m.location->longitude, longitude) > longitudeDelta / 2 + kSlack) continue;
    out.push_back(Json{{"user_id", m.userId},
                       {"map_id", m.mapId},
                       {"latitude", m.location->latitude},
                       {"longitude", m.location->longitude},
                       {"altitude", m.location->altitude},
                       {"vertical_accuracy", m.location->verticalAccuracy},
                       {"horizontal_accuracy", m.location->horizontalAccuracy}});
  }
  return {200, std::move(out)};
}

Answer MapService::placeAssetOnMap(const std::string& body) {
  BodyReader r(body);
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
      rec.placementId = placementId;
      rec.timestamp = timestamp;
      if (!p.ok()) r.fail(p.error());
      placements.push_back(std::move(rec));
    }
  }
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
  auto map = store_.map(mapUuid, &e);
  if (e) return storeFailure(*e);
  if (!map) return error(kNotFound, "Cannot find the map " + mapUuid);
  if (auto pe = store_.place(mapUuid, std::move(placements))) return storeFailure(*pe);
  return {200, Json{{"placement_id", placementId}}};
}

Answer MapService::findAssetsOnTheMap(const std::string& body) {
  BodyReader r(body);
  const std::string mapUuid = r.string("map_uuid");
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
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

Answer MapService::getBestTransform(const std::optional<std::string>& sessionId,
                                    const std::optional<std::string>& localizer) {
  if (!sessionId || sessionId->empty()) {
    return error(kBadRequest, "Missing query parameter \"session_id\"");
  }
  if (!localizer || localizer->empty()) {
    return error(kBadRequest, "Missing query parameter \"localizer\"");
  }
  if (!isLocalizerName(*localizer)) return error(kBadRequest, "Unknown localizer " + *localizer);
  std::optional<StoreError> e;
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
  return jobs_.trigger(sessionUuid + "/" + localizer, [this, localizer, mapUuid, sessionUuid] {
    JobOutcome out = runLocalizer(store_, localizer, mapUuid, sessionUuid, options_.localizers);
    if (!options_.log) return;
    std::string line = localizer + " for session " + sessionUuid + ": " + out.summary;
    if (out.error) line += "; store error: " + out.error->message;
    line += out.wrote ? "; result written" : "; no result";
    options_.log(line);
  });
}

Answer MapService::triggerImageMatcher(const std::string& body) {
  BodyReader r(body);
  const std::string sessionUuid = r.string("uuid");
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
  auto session = store_.session(sessionUuid, &e);
  if (e) return storeFailure(*e);
  if (!session) return error(kNotFound, "Cannot find the localization session " + sessionUuid);
  if (!queue(kImageMatcher, session->mapUuid, sessionUuid)) {
    return error(kUnavailable, "The server is stopping");
  }
  return {200, Json{{"status", "queued"}}};
}

Answer MapService::triggerTransforms(const std::string& body) {
  BodyReader r(body);
  const std::string mapUuid = r.string("mapping_session_id");
  const std::string sessionUuid = r.string("localization_session_id");
  const bool seeded = r.boolean("is_seeded");
  if (!r.ok()) return error(kBadRequest, r.error());
  std::optional<StoreError> e;
  auto session = store_.session(sessionUuid, &e);
  if (e) return storeFailure(*e);
  if (!session) return error(kNotFound, "Cannot find the localization session " + sessionUuid);
  auto map = store_.map(mapUuid, &e);
  if (e) return storeFailure(*e);
  if (!map) return error(kNotFound, "Cannot find the map " + mapUuid);
  if (!queue(seeded ? kSuLocalizerSeeded : kSuLocalizer, mapUuid, sessionUuid)) {
    return error(kUnavailable, "The server is stopping");
  }
  return {200, Json{{"status", "queued"}}};
}

}  // namespace omra::server
