// What this server accepts of an HTTP/1.1 request beyond what the parser checks, and the step from
// a parsed message to the Request the routes see. Pure functions; thread-safe.
#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "server/request.h"

namespace omra::server {

using HttpRequestMessage = boost::beast::http::request<boost::beast::http::string_body>;

// Why a request is refused before any route sees it.
struct HttpRefusal {
  int status = 400;
  std::string message;
};

// received: the bytes of a request whose header is not parsed yet. True when a header line is
// folded onto the next (obs-fold), which the parser would silently join.
bool hasFoldedHeaderLine(std::string_view received);

// Refuses what a proxy in front could read differently: a repeated or list-valued
// Content-Length, any Transfer-Encoding but a single "chunked", both together, a missing or
// repeated Host on HTTP/1.1. (The parser itself refuses versions other than 1.0 and 1.1.)
std::optional<HttpRefusal> checkHeader(const boost::beast::http::request_header<>& header);

// Decodes the target and the body's Content-Encoding (decoded size at most maxBodyBytes);
// header names in lower case, a repeated header keeps its first value.
std::variant<Request, HttpRefusal> toRequest(HttpRequestMessage&& message, size_t maxBodyBytes);

// The answer to a body over maxBodyBytes, the same for every way of sending it.
HttpRefusal bodyTooLarge(size_t maxBodyBytes);

}  // namespace omra::server
