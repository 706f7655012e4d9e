#include "server/http_request_reader.h"

#include <algorithm>
#include <cctype>

#include "server/content_decoding.h"
#include "server/http_text.h"

namespace omra::server {
namespace http = boost::beast::http;

namespace {

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

HttpRefusal refuse(std::string message) { return {400, std::move(message)}; }

}  // namespace

bool hasFoldedHeaderLine(std::string_view received) {
  // Only the header counts: the body may hold anything.
  const size_t end = received.find("\r\n\r\n");
  if (end != std::string_view::npos) received = received.substr(0, end + 2);
  for (size_t i = received.find('\n'); i != std::string_view::npos;
       i = received.find('\n', i + 1)) {
    if (i + 1 < received.size() && (received[i + 1] == ' ' || received[i + 1] == '\t')) {
      return true;
    }
  }
  return false;
}

std::optional<HttpRefusal> checkHeader(const http::request_header<>& header) {
  const size_t lengths = header.count(http::field::content_length);
  const size_t encodings = header.count(http::field::transfer_encoding);
  if (lengths > 1) return refuse("Repeated Content-Length");
  if (lengths == 1) {
    const std::string_view v = trimmed(header[http::field::content_length]);
    if (v.empty() ||
        !std::all_of(v.begin(), v.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      return refuse("Malformed Content-Length");
    }
  }
  if (encodings > 1) return refuse("Repeated Transfer-Encoding");
  if (encodings == 1) {
    if (lengths == 1) return refuse("Content-Length together with Transfer-Encoding");
    if (lower(trimmed(header[http::field::transfer_encoding])) != "chunked") {
      return refuse("Unsupported Transfer-Encoding");
    }
  }
  if (header.version() == 11 && header.count(http::field::host) != 1) {
    return refuse("An HTTP/1.1 request needs exactly one Host header");
  }
  return std::nullopt;
}

HttpRefusal bodyTooLarge(size_t maxBodyBytes) {
  return refuse("Request body over " + std::to_string(maxBodyBytes) + " bytes");
}

std::variant<Request, HttpRefusal> toRequest(HttpRequestMessage&& message, size_t maxBodyBytes) {
  Request r;
  std::string error;
  std::optional<RequestTarget> target = parseRequestTarget(message.target(), &error);
  if (!target) return refuse(error);
  r.method = std::string(message.method_string());
  r.path = std::move(target->path);
  r.query = std::move(target->query);
  for (const auto& field : message) {
    r.headers.emplace(lower(field.name_string()), std::string(field.value()));
  }
  DecodedContent body = decodeContent(message[http::field::content_encoding],
                                      std::move(message.body()), maxBodyBytes);
  switch (body.status) {
    case DecodedContent::Status::ok:
      r.body = std::move(body.body);
      return r;
    case DecodedContent::Status::overLimit:
      return bodyTooLarge(maxBodyBytes);
    case DecodedContent::Status::unsupported:
      return HttpRefusal{415, std::move(body.error)};
    case DecodedContent::Status::malformed:
      break;
  }
  return refuse(std::move(body.error));
}

}  // namespace omra::server
