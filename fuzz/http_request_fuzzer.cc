// Bytes as omra-server's HTTP front reads them off a connection: the parser, the header checks,
// the target and the body's Content-Encoding, up to the Request the routes see, and the log line.
#include <boost/beast/http/parser.hpp>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>

#include "server/http_request_reader.h"
#include "server/http_text.h"
#include "src/foundation/json_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace http = boost::beast::http;
  constexpr size_t kLimit = 64 * 1024;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (omra::server::hasFoldedHeaderLine(bytes)) return 0;
  http::request_parser<http::string_body> parser;
  parser.header_limit(8 * 1024);
  parser.body_limit(kLimit);
  parser.eager(true);
  boost::beast::error_code ec;
  std::string_view rest = bytes;
  // Fed in two pieces, as a connection delivers them.
  const size_t cut = size / 2;
  std::string pending(rest.substr(0, cut));
  rest.remove_prefix(cut);
  while (!parser.is_done()) {
    const size_t used = parser.put(boost::asio::buffer(pending), ec);
    pending.erase(0, used);
    if (ec == http::error::need_more) {
      if (rest.empty()) return 0;
      pending.append(rest);
      rest = {};
      ec = {};
      continue;
    }
    if (ec) return 0;
    if (used == 0) {
      if (rest.empty()) return 0;
      pending.append(rest);
      rest = {};
    }
  }
  (void)omra::server::escapeForLog(parser.get().target());
  if (omra::server::checkHeader(parser.get().base())) return 0;
  auto request = omra::server::toRequest(parser.release(), kLimit);
  if (auto* r = std::get_if<omra::server::Request>(&request)) {
    if (r->body.size() > kLimit) __builtin_trap();
    if (!omra::isValidUtf8(r->path)) __builtin_trap();
  }
  return 0;
}
