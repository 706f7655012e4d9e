#include "src/cloud/cloud_api.h"

#include <charconv>
#include <chrono>
#include <utility>

#include "omrakit/settings.h"
#include "omrakit/version.h"
#include "src/cloud/account_http_client.h"
#include "src/cloud/metrics.h"
#include "src/cloud/model_name.h"
#include "src/foundation/fatal.h"
#include "src/foundation/json_reader.h"
#include "src/foundation/number_format.h"

namespace omra {
namespace {

// A float as the JSON number whose shortest text reads back to that float (0.1f goes out as 0.1,
// not 0.10000000149011612).
// from_chars, not strtod: under a host's comma-decimal locale strtod stops at the '.'.
Json floatNumber(float value) {
  const std::string text = formatFloatShortest(value);
  double number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return Json(number);
}

double secondsSince1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Reads a number without converting other types; none when missing or not a number.
std::optional<double> numberAt(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return std::nullopt;
  return it->get<double>();
}

std::optional<std::string> stringAt(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::optional<Map> parseMapEntry(const Json& entry) {
  if (!entry.is_object()) return std::nullopt;
  // Read in the reply's order; the accuracies come vertical first.
  auto userID = stringAt(entry, "user_id");
  if (!userID) return std::nullopt;
  auto mapID = stringAt(entry, "map_id");
  if (!mapID) return std::nullopt;
  const auto latitude = numberAt(entry, "latitude");
  const auto longitude = numberAt(entry, "longitude");
  const auto altitude = numberAt(entry, "altitude");
  const auto verticalAccuracy = numberAt(entry, "vertical_accuracy");
  const auto horizontalAccuracy = numberAt(entry, "horizontal_accuracy");
  if (!latitude || !longitude || !altitude || !verticalAccuracy || !horizontalAccuracy) {
    return std::nullopt;
  }
  return Map(std::move(*userID), std::move(*mapID), *latitude, *longitude, *altitude,
             *horizontalAccuracy, *verticalAccuracy);
}

}  // namespace

CloudAPI::CloudAPI(bool useBeta, std::string appID, std::string devKeyHash, CloudServices services)
    : urls_(std::move(services.urls)),
      address_(urls_.mapsUrlBase(useBeta)),
      appID_(std::move(appID)),
      developerKeyHash_(std::move(devKeyHash)),
      metrics_(std::move(services.metrics)) {
  OMRA_CHECK(services.http != nullptr, "CloudAPI needs an HTTP client");
  http_ = std::make_shared<AccountHttpClient>(std::move(services.http), developerKeyHash_);
  OMRA_CHECK(services.device != nullptr, "CloudAPI needs the device information");
  deviceVersion_ = services.device->systemVersion();
  deviceModel_ = modelName(*services.device);
  deviceUUID_ = services.device->identifierForVendor();
}

std::optional<Json> CloudAPI::replyJson(const HttpResponse& response) {
  if (response.json) {
    if (response.json->is_discarded()) return std::nullopt;
    return response.json;
  }
  if (!response.transportError.empty() || response.body.empty()) return std::nullopt;
  return readJson(response.body);
}

Json CloudAPI::sessionBody(const std::string& appID, const std::string& user,
                           const std::string& map, const LocationValues& location) const {
  Json body = Json::object();
  body["app_id"] = appID;
  body["user_id"] = user;
  body["map_id"] = map;
  body["developer_key"] = developerKeyHash_;
  body["pod_version"] = OMRA_POD_VERSION;
  body["data_version"] = DATA_VERSION;
  body["device_version"] = deviceVersion_;
  body["device_model"] = deviceModel_;
  if (deviceUUID_) body["device_uuid"] = *deviceUUID_;
  // The location goes as a whole or not at all.
  if (location.longitude && location.latitude && location.altitude && location.horizontalAccuracy &&
      location.verticalAccuracy) {
    body["long"] = *location.longitude;
    body["lat"] = *location.latitude;
    body["alt"] = *location.altitude;
    body["horAccuracy"] = *location.horizontalAccuracy;
    body["verAccuracy"] = *location.verticalAccuracy;
  }
  return body;
}

void CloudAPI::sendSessionRequest(const char* path, const Json& body, JsonCallback callback) const {
  http_->postJson(address_ + path, body, [callback = std::move(callback)](HttpResponse response) {
    auto json = replyJson(response);
    if (!callback) return;
    callback(json ? std::move(*json) : Json::array());
  });
}

void CloudAPI::sendAssetRequest(const char* path, const Json& body, JsonCallback callback) const {
  http_->postJson(address_ + path, body, [callback = std::move(callback)](HttpResponse response) {
    auto json = replyJson(response);
    if (json && callback) callback(std::move(*json));
  });
}

void CloudAPI::initiateMappingSession(const std::string& appID, const std::string& user,
                                      const std::string& map, const LocationValues& location,
                                      JsonCallback callback) const {
  sendSessionRequest("/create_map", sessionBody(appID, user, map, location), std::move(callback));
}

void CloudAPI::initiateLocalizationSession(const std::string& appID, const std::string& user,
                                           const std::string& map, const LocationValues& location,
                                           JsonCallback callback) const {
  Json body = sessionBody(appID, user, map, location);
  // Only ever sent as true: a false flag is left out.
  if (OmraSettings::USE_BETA_ALGO.load()) body["use_beta"] = true;
  sendSessionRequest("/create_localization_session", body, std::move(callback));
}

void CloudAPI::listNearby(const std::string& appID, const std::optional<std::string>& user,
                          const std::string& developerKey, double longitude, double latitude,
                          double longDiff, double latDiff, MapsCallback callback) const {
  Json body = Json::object();
  body["app_id"] = appID;
  body["longitude"] = longitude;
  body["latitude"] = latitude;
  body["longitude_delta"] = longDiff;
  body["latitude_delta"] = latDiff;
  body["developer_key"] = developerKey;
  body["pod_version"] = OMRA_POD_VERSION;
  body["data_version"] = DATA_VERSION;
  body["device_version"] = deviceVersion_;
  body["device_model"] = deviceModel_;
  if (user) body["user_id"] = *user;
  http_->postJson(address_ + "/list_nearby_maps", body,
                  [callback = std::move(callback)](HttpResponse response) {
                    const auto json = replyJson(response);
                    std::vector<Map> maps;
                    if (json) maps = parseNearbyMaps(*json);
                    if (callback) callback(std::move(maps));
                  });
}

std::vector<Map> CloudAPI::parseNearbyMaps(const Json& reply) {
  std::vector<Map> maps;
  if (!reply.is_array() && !reply.is_object()) return maps;
  for (const auto& entry : reply) {
    if (auto map = parseMapEntry(entry)) maps.push_back(std::move(*map));
  }
  return maps;
}

void CloudAPI::placeAssetOnMap(const std::string& mapUUID, const std::vector<MapAsset>& assets,
                               JsonCallback callback) const {
  Json placements = Json::array();
  for (const MapAsset& asset : assets) {
    Json placement = Json::object();
    placement["asset_id"] = asset.assetID;
    placement["x"] = floatNumber(asset.position.x);
    placement["y"] = floatNumber(asset.position.y);
    placement["z"] = floatNumber(asset.position.z);
    placement["orientation"] = floatNumber(asset.orientation);
    placements.push_back(std::move(placement));
  }
  Json body = Json::object();
  body["map_uuid"] = mapUUID;
  body["placements"] = std::move(placements);
  body["timestamp"] = secondsSince1970();
  sendAssetRequest("/place_asset_on_map", body, std::move(callback));
}

void CloudAPI::findAssetsOnTheMap(const std::string& mapUUID, JsonCallback callback) const {
  Json body = Json::object();
  body["map_uuid"] = mapUUID;
  sendAssetRequest("/find_assets_on_the_map", body, std::move(callback));
}

void CloudAPI::postMetric(const std::string& metricName, std::optional<double> seconds,
                          bool reportWithDevKey, bool reportWithoutDevKey) const {
  if (!reportWithDevKey && !reportWithoutDevKey) return;
  std::vector<MetricDatum> data;
  if (reportWithDevKey) {
    if (auto datum = buildCWMetricDatum(metricName, developerKeyHash_, seconds)) {
      data.push_back(std::move(*datum));
    }
  }
  if (reportWithoutDevKey) {
    if (auto datum = buildCWMetricDatum(metricName, std::nullopt, seconds)) {
      data.push_back(std::move(*datum));
    }
  }
  if (metrics_) metrics_->putMetricData(kMetricsNamespace, std::move(data));
}

}  // namespace omra
