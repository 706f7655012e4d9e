// Reads the keys of one JSON request body with type checks, keeping the first complaint so that a
// bad request is answered with what is wrong and nothing is stored. One per request; not
// thread-safe.
#pragma once

#include <optional>
#include <string>

#include "omrakit/platform/http_client.h"

namespace omra::server {

class BodyReader {
 public:
  // Parses text with the bounded reader (depth, size, UTF-8); a body that is not a JSON object is
  // the first complaint.
  explicit BodyReader(const std::string& text);
  BodyReader(const BodyReader&) = delete;
  BodyReader& operator=(const BodyReader&) = delete;
  // Reads an already parsed object (an element of an array, say); where names it in complaints.
  BodyReader(const Json& object, std::string where);

  bool ok() const { return !error_; }
  const std::string& error() const { return *error_; }
  void fail(const std::string& message) {
    if (!error_) error_ = message;
  }
  const Json& json() const { return *object_; }

  std::string string(const char* key, bool allowEmpty = false);  // required
  std::optional<std::string> optionalString(const char* key);
  double number(const char* key);  // required, finite
  // Required, finite and within kMaxAssetCoordinateMetres: a position in a map.
  double coordinate(const char* key);
  std::optional<double> optionalNumber(const char* key);
  bool boolean(const char* key);
  std::optional<bool> optionalBoolean(const char* key);
  // Required array; null when missing or not an array (and a complaint is kept).
  const Json* array(const char* key);

 private:
  const Json* find(const char* key, bool required);
  std::string name(const char* key) const;

  Json parsed_;
  const Json* object_ = &parsed_;
  std::string where_;
  std::optional<std::string> error_;
};

}  // namespace omra::server
