#include "src/mapping/data_manager.h"

#include <ctime>
#include <utility>

#include "omrakit/settings.h"
#include "src/cloud/cloud_api.h"
#include "src/foundation/json_reader.h"
#include "src/mapping/transform_answer.h"

namespace omra {
namespace {

std::string formatDataDirectory(const std::string& root,
                                std::chrono::system_clock::time_point time) {
  const std::time_t t = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  localtime_r(&t, &local);
  char text[32];
  std::strftime(text, sizeof text, "%y%m%d_%H%M%S", &local);
  return root + "/" + text;
}

// The string under key, or none when it is absent or not a string.
std::optional<std::string> stringAt(const Json& object, const char* key) {
  if (!object.is_object()) return std::nullopt;
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

bool hasKey(const Json& object, const char* key) {
  return object.is_object() && object.contains(key);
}

}  // namespace

std::shared_ptr<DataManager> DataManager::create(Deps deps, SessionMode mode,
                                                 SessionIdentity identity,
                                                 std::chrono::system_clock::time_point creation) {
  return std::shared_ptr<DataManager>(
      new DataManager(std::move(deps), mode, std::move(identity), creation));
}

DataManager::DataManager(Deps deps, SessionMode mode, SessionIdentity identity,
                         std::chrono::system_clock::time_point creationTime)
    : deps_(std::move(deps)),
      mode_(mode),
      identity_(std::move(identity)),
      dataDirectory_(formatDataDirectory(dataRootDirectory_, creationTime)),
      imageSaveQueue_(deps_.dispatcher->makeSerialQueue("com.omra.savedata")),
      relocalizationQueue_(deps_.dispatcher->makeSerialQueue("com.omra.relocalization")),
      locManager_(LocationManager::create(deps_.location)) {}

bool DataManager::useBeta() { return OmraSettings::USE_BETA_ALGO.load(); }

void DataManager::setMappingMode(StatusCallback statusCallback) {
  openSession(false, std::move(statusCallback));
}

void DataManager::setLocalizationMode(StatusCallback statusCallback) {
  openSession(true, std::move(statusCallback));
}

void DataManager::openSession(bool localization, StatusCallback statusCallback) {
  LocationValues values;
  if (std::optional<Location> location = locManager_->currentLocation()) {
    values = {location->longitude, location->latitude, location->altitude,
              location->horizontalAccuracy, location->verticalAccuracy};
  }
  auto self = shared_from_this();
  auto reply = [self, localization, statusCallback = std::move(statusCallback)](Json answer) {
    if (localization) {
      self->handleLocalizationReply(answer, statusCallback);
    } else {
      self->handleMappingReply(answer, statusCallback);
    }
  };
  if (localization) {
    deps_.cloudAPI->initiateLocalizationSession(identity_.appID, identity_.userID, identity_.mapID,
                                                values, std::move(reply));
  } else {
    deps_.cloudAPI->initiateMappingSession(identity_.appID, identity_.userID, identity_.mapID,
                                           values, std::move(reply));
  }
}

void DataManager::handleMappingReply(const Json& reply, const StatusCallback& statusCallback) {
  deps_.logger->print(dumpJson(reply));
  MapStatus status = MapStatus::networkError;
  if (std::optional<std::string> uuid = stringAt(reply, "uuid")) {
    {
      std::lock_guard lock(mutex_);
      mapUUID_ = std::move(uuid);
    }
    status = MapStatus::initialized;
  } else if (hasKey(reply, "errorMessage")) {
    status = MapStatus::serverError;
  }
  if (statusCallback) statusCallback(status);
}

void DataManager::handleLocalizationReply(const Json& reply, const StatusCallback& statusCallback) {
  deps_.logger->print(dumpJson(reply));
  if (std::optional<std::string> sessionUUID = stringAt(reply, "session_uuid")) {
    bool haveMap = false;
    {
      std::lock_guard lock(mutex_);
      localizationSessionUUID_ = std::move(sessionUUID);
      mapUUID_ = stringAt(reply, "map_uuid");
      haveMap = mapUUID_.has_value();
    }
    if (statusCallback) statusCallback(MapStatus::initialized);
    if (haveMap) retrieveAssets([](const Json&) {});
    return;
  }
  MapStatus status = MapStatus::networkError;
  if (hasKey(reply, "errorMessage")) {
    std::optional<std::string> message = stringAt(reply, "errorMessage");
    status = message && message->find("Cannot find the map") != std::string::npos
                 ? MapStatus::mapNotFound
                 : MapStatus::serverError;
  }
  if (statusCallback) statusCallback(status);
}

void DataManager::triggerTransformCompute(const std::string& mappingUUID,
                                          const std::string& localizationUUID, bool isSeeded) {
  Json parameters = Json::object();
  parameters["mapping_session_id"] = mappingUUID;
  parameters["localization_session_id"] = localizationUUID;
  parameters["is_seeded"] = isSeeded;
  deps_.logger->print("asking for new transform. Mapping session id: " + mappingUUID +
                      ", localitzation session id: " + localizationUUID +
                      ". Seeded: " + (isSeeded ? "true" : "false"));
  const std::string& url = deps_.cloudAPI->urls().triggerTransformCompute(useBeta());
  auto logger = deps_.logger;
  deps_.cloudAPI->http()->postJson(url, parameters, [logger](HttpResponse response) {
    if (CloudAPI::replyJson(response)) logger->print("Transform requested");
  });
}

void DataManager::triggerImageMatchTrigger(const std::string& localizationUUID) {
  Json parameters = Json::object();
  parameters["uuid"] = localizationUUID;
  deps_.logger->print("asking for new matching transform. " + localizationUUID);
  const std::string& url = deps_.cloudAPI->urls().triggerImageMatchCompute(useBeta());
  auto logger = deps_.logger;
  deps_.cloudAPI->http()->postJson(url, parameters, [logger](HttpResponse response) {
    if (CloudAPI::replyJson(response)) logger->print("Transform requested");
  });
}

std::string DataManager::bestTransformUrl(const std::string& sessionId,
                                          const std::string& algorithm) const {
  const std::string& base = deps_.cloudAPI->urls().getTransforms(useBeta());
  // No escaping: identifiers are UUID texts and localizer names are plain.
  return base + "?session_id=" + sessionId + "&localizer=" + algorithm;
}

void DataManager::getLatestTransform() {
  std::optional<std::string> sessionId = currentSessionUUID();
  if (!sessionId) return;
  for (const char* algorithm : {"full_image_matcher", "su_localizer", "su_localizer_seeded"}) {
    getLatestTransform(*sessionId, algorithm);
  }
}

void DataManager::getLatestTransform(const std::string& sessionId, const std::string& algorithm) {
  auto self = shared_from_this();
  deps_.cloudAPI->http()->get(
      bestTransformUrl(sessionId, algorithm),
      [self](HttpResponse response) { self->handleTransformReply(response); });
}

void DataManager::handleTransformReply(const HttpResponse& response) {
  // The answer is an object or nothing.
  std::optional<Json> dictionary = CloudAPI::replyJson(response);
  if (!dictionary || !dictionary->is_object()) return;
  TransformRetrievedHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = transformRetrievedHandler_;
  }
  if (!handler) return;
  TransformAnswerOutcome outcome = readBestTransformAnswer(*dictionary);
  if (auto* malformed = std::get_if<MalformedTransformAnswer>(&outcome)) {
    deps_.logger->systemLog(LogLevel::kError,
                            "Dropped a malformed best-transform answer: " + malformed->reason);
    return;
  }
  if (auto* answer = std::get_if<BestTransformAnswer>(&outcome)) {
    // The localizer passed on is the one the answer names, not the one asked for.
    handler(answer->localizer, answer->transform, answer->matchValue);
  }
}

void DataManager::retrieveAssets(AssetsCallback callback) {
  std::optional<std::string> map = mapUUID();
  if (!map) return;
  auto self = shared_from_this();
  deps_.cloudAPI->findAssetsOnTheMap(*map, [self, callback = std::move(callback)](Json reply) {
    {
      std::lock_guard lock(self->mutex_);
      self->preloadedAssetJSON_ = reply;
    }
    if (callback) callback(reply);
  });
}

std::optional<Json> DataManager::convertToDictionary(std::string_view text) {
  std::optional<Json> parsed = readJson(text);
  if (!parsed || !parsed->is_object()) return std::nullopt;
  return parsed;
}

void DataManager::setTransformRetrievedHandler(TransformRetrievedHandler handler) {
  std::lock_guard lock(mutex_);
  transformRetrievedHandler_ = std::move(handler);
}

std::optional<std::string> DataManager::mapUUID() const {
  std::lock_guard lock(mutex_);
  return mapUUID_;
}

std::optional<std::string> DataManager::localizationSessionUUID() const {
  std::lock_guard lock(mutex_);
  return localizationSessionUUID_;
}

std::optional<std::string> DataManager::currentSessionUUID() const {
  std::lock_guard lock(mutex_);
  return mode_ == SessionMode::mapping ? mapUUID_ : localizationSessionUUID_;
}

std::optional<Json> DataManager::preloadedAssetJSON() const {
  std::lock_guard lock(mutex_);
  return preloadedAssetJSON_;
}

}  // namespace omra
