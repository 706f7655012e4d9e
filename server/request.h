// One HTTP request as the routes see it, whatever server stack received it, and the answer they
// give. Plain values; not thread-safe to mutate concurrently.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "omrakit/platform/http_client.h"
#include "src/cloud/account_http_client.h"  // kAccountHeader

namespace omra::server {

struct Request {
  std::string method;                          // "GET", "POST", ...
  std::string path;                            // percent-decoded, without the query
  std::map<std::string, std::string> query;    // percent-decoded names and values
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;                            // decoded (no transfer or content coding left)

  // The header's value, or empty; name in any case.
  std::string header(const std::string& name) const;
};

struct Answer {
  Answer() = default;
  Answer(int s, Json b) : status(s), body(std::move(b)) {}

  int status = 200;
  Json body;
  std::string text;  // when not empty, the body already written as JSON text (sent instead of body)
  std::map<std::string, std::string> headers;  // extra headers, e.g. "Retry-After"
};

}  // namespace omra::server
