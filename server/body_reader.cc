#include "server/body_reader.h"

#include <cmath>

#include "omrakit/map_asset.h"
#include "src/foundation/json_reader.h"

namespace omra::server {

BodyReader::BodyReader(const std::string& text) {
  std::string why;
  std::optional<Json> parsed = readJson(text, &why);
  if (!parsed) {
    parsed_ = Json::object();
    fail("Request body is not JSON: " + why);
  } else if (parsed_ = std::move(*parsed); !parsed_.is_object()) {
    parsed_ = Json::object();
    fail("Request body must be a JSON object");
  }
}

BodyReader::BodyReader(const Json& object, std::string where) : where_(std::move(where)) {
  if (!object.is_object()) {
    parsed_ = Json::object();
    fail(where_ + " must be a JSON object");
  } else {
    object_ = &object;
  }
}

std::string BodyReader::name(const char* key) const {
  return where_.empty() ? "\"" + std::string(key) + "\"" : where_ + " \"" + key + "\"";
}

const Json* BodyReader::find(const char* key, bool required) {
  auto it = object_->find(key);
  if (it == object_->end() || it->is_null()) {
    if (required) fail("Missing key " + name(key));
    return nullptr;
  }
  return &*it;
}

std::optional<std::string> BodyReader::optionalString(const char* key) {
  const Json* v = find(key, false);
  if (!v) return std::nullopt;
  if (!v->is_string()) {
    fail(name(key) + " must be a string");
    return std::nullopt;
  }
  return v->get<std::string>();
}

std::string BodyReader::string(const char* key, bool allowEmpty) {
  const Json* v = find(key, true);
  if (!v) return {};
  if (!v->is_string()) {
    fail(name(key) + " must be a string");
    return {};
  }
  std::string s = v->get<std::string>();
  if (s.empty() && !allowEmpty) fail(name(key) + " must not be empty");
  return s;
}

std::optional<double> BodyReader::optionalNumber(const char* key) {
  const Json* v = find(key, false);
  if (!v) return std::nullopt;
  if (!v->is_number()) {
    fail(name(key) + " must be a number");
    return std::nullopt;
  }
  const double d = v->get<double>();
  if (!std::isfinite(d)) {
    fail(name(key) + " must be a finite number");
    return std::nullopt;
  }
  return d;
}

double BodyReader::number(const char* key) {
  if (!find(key, true)) return 0;
  return optionalNumber(key).value_or(0);
}

double BodyReader::coordinate(const char* key) {
  const double d = number(key);
  if (!isPlausibleCoordinate(d)) {
    fail(name(key) + " must be within " +
         std::to_string(static_cast<int>(kMaxAssetCoordinateMetres)) + " m of the origin");
    return 0;
  }
  return d;
}

std::optional<bool> BodyReader::optionalBoolean(const char* key) {
  const Json* v = find(key, false);
  if (!v) return std::nullopt;
  if (!v->is_boolean()) {
    fail(name(key) + " must be true or false");
    return std::nullopt;
  }
  return v->get<bool>();
}

bool BodyReader::boolean(const char* key) {
  if (!find(key, true)) return false;
  return optionalBoolean(key).value_or(false);
}

const Json* BodyReader::array(const char* key) {
  const Json* v = find(key, true);
  if (!v) return nullptr;
  if (!v->is_array()) {
    fail(name(key) + " must be an array");
    return nullptr;
  }
  return v;
}

}  // namespace omra::server
