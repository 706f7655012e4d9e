// HTTP: one request per call, completion on the main queue.
//
// Thread-safe: requests may be issued from any thread.
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace omra {

// Ordered, so that request bodies keep the key order in which the kit adds keys.
using Json = nlohmann::ordered_json;

enum class HttpMethod { kGet, kPost };

struct HttpRequest {
  HttpMethod method = HttpMethod::kGet;
  std::string url;
  std::map<std::string, std::string> headers;
  std::string body;  // sent as is; JSON requests also set Content-Type
};

struct HttpResponse {
  long status = 0;             // 0 when no HTTP answer arrived
  std::string transportError;  // non-empty when no HTTP answer arrived
  std::string body;
  // The body parsed as JSON by the client; a discarded value when the client refused it
  // (malformed, too deep, too large, invalid UTF-8); none when the client does not parse bodies.
  std::optional<Json> json;
  // Response headers by lower-case name (a repeated header keeps its last value).
  std::map<std::string, std::string> headers;
};

class HttpClient {
 public:
  using Completion = std::function<void(HttpResponse)>;
  virtual ~HttpClient() = default;
  // Sends the request; completion runs exactly once on the main queue.
  virtual void send(HttpRequest request, Completion completion) = 0;

  // Conveniences over send(): POST a JSON body, GET a URL.
  void postJson(const std::string& url, const Json& body, Completion completion) {
    HttpRequest r;
    r.method = HttpMethod::kPost;
    r.url = url;
    r.headers["Content-Type"] = "application/json";
    // Strings are checked where they enter the kit; should one slip through, a replacement
    // character goes out rather than an exception into the caller.
    r.body = body.dump(-1, ' ', false, Json::error_handler_t::replace);
    send(std::move(r), std::move(completion));
  }
  void get(const std::string& url, Completion completion) {
    HttpRequest r;
    r.url = url;
    send(std::move(r), std::move(completion));
  }
};

}  // namespace omra
