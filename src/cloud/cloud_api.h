// CloudAPI: the client of the maps HTTP API (opening mapping and localization sessions, listing
// nearby maps, storing and fetching asset placements) and the poster of the kit's metrics.
//
// One instance per session, shared by everything that talks to the maps API. Its fields are set
// in the constructor and never change, so every method is thread-safe. Each call sends exactly one
// request (no retry, no time-out of its own); callbacks run on the main queue, through the
// HttpClient. The callbacks capture nothing of the client, so it may be dropped while requests are
// in flight.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/map.h"
#include "omrakit/map_asset.h"
#include "omrakit/platform/device_info.h"
#include "omrakit/platform/env.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/platform/metrics_sink.h"
#include "src/cloud/urls.h"

namespace omra {

// The services the client uses. http and device are required; metrics may be null (metrics are
// then dropped).
struct CloudServices {
  std::shared_ptr<HttpClient> http;
  std::shared_ptr<DeviceInfo> device;
  std::shared_ptr<MetricsSink> metrics;
  Urls urls = Urls::shared();

  static CloudServices fromEnv(const Env& env) { return {env.http, env.device, env.metrics}; }
};

// A device location as the platform gives it; each value may be missing.
struct LocationValues {
  std::optional<double> longitude, latitude, altitude, horizontalAccuracy, verticalAccuracy;
};

class CloudAPI {
 public:
  using JsonCallback = std::function<void(Json)>;
  using MapsCallback = std::function<void(std::vector<Map>)>;

  // Takes the beta or prod base address now, once, from useBeta; reads the device's version,
  // model and vendor identifier once. Null http or device is fatal.
  CloudAPI(bool useBeta, std::string appID, std::string devKeyHash, CloudServices services);

  // "/create_map". Always calls back once: the reply's JSON, or an empty JSON array when there
  // is none (transport failure, non-JSON body). The HTTP status is not examined.
  void initiateMappingSession(const std::string& appID, const std::string& user,
                              const std::string& map, const LocationValues& location,
                              JsonCallback callback) const;
  // "/create_localization_session": as initiateMappingSession, plus "use_beta": true when
  // USE_BETA_ALGO is on at the time of the call.
  void initiateLocalizationSession(const std::string& appID, const std::string& user,
                                   const std::string& map, const LocationValues& location,
                                   JsonCallback callback) const;
  // "/list_nearby_maps". Always calls back once with the complete entries, possibly none.
  void listNearby(const std::string& appID, const std::optional<std::string>& user,
                  const std::string& developerKey, double longitude, double latitude,
                  double longDiff, double latDiff, MapsCallback callback) const;
  // "/place_asset_on_map". Calls back only with a JSON reply; never on failure.
  void placeAssetOnMap(const std::string& mapUUID, const std::vector<MapAsset>& assets,
                       JsonCallback callback) const;
  // "/find_assets_on_the_map". Calls back only with a JSON reply; never on failure.
  void findAssetsOnTheMap(const std::string& mapUUID, JsonCallback callback) const;

  // Posts one request of one or two data points (with and/or without the "devKey" dimension);
  // nothing when both flags are false. Fire-and-forget.
  void postMetric(const std::string& metricName, std::optional<double> seconds,
                  bool reportWithDevKey, bool reportWithoutDevKey) const;

  // The Map records of a nearby-maps reply, skipping incomplete or mistyped entries.
  static std::vector<Map> parseNearbyMaps(const Json& reply);
  // The JSON of a reply, or none when no HTTP answer came or the body is not JSON.
  static std::optional<Json> replyJson(const HttpResponse& response);

  const std::string& address() const { return address_; }
  const std::string& appID() const { return appID_; }
  const std::string& developerKeyHash() const { return developerKeyHash_; }
  const std::string& deviceVersion() const { return deviceVersion_; }
  const std::string& deviceModel() const { return deviceModel_; }
  const std::optional<std::string>& deviceUUID() const { return deviceUUID_; }
  // The endpoints this client was made with (for the relocalization requests).
  const Urls& urls() const { return urls_; }
  // The client every request of this account goes through: it carries the account header.
  const std::shared_ptr<HttpClient>& http() const { return http_; }

 private:
  Json sessionBody(const std::string& appID, const std::string& user, const std::string& map,
                   const LocationValues& location) const;
  void sendSessionRequest(const char* path, const Json& body, JsonCallback callback) const;
  void sendAssetRequest(const char* path, const Json& body, JsonCallback callback) const;

  const Urls urls_;
  const std::string address_;
  const std::string appID_;
  const std::string developerKeyHash_;
  std::shared_ptr<HttpClient> http_;  // adds the account header to every request
  const std::shared_ptr<MetricsSink> metrics_;
  std::string deviceVersion_;
  std::string deviceModel_;
  std::optional<std::string> deviceUUID_;
};

}  // namespace omra
