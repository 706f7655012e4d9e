// Text from the network made safe: percent-decoding of request targets that never throws (UTF-8
// checked by src/foundation/json_reader.h) and escaping for log lines. Pure functions; thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace omra::server {

// Undoes %XX escapes (and '+' as a space when plusIsSpace, as in query strings). Nullopt for a
// malformed escape or a result that is not UTF-8.
std::optional<std::string> percentDecode(std::string_view s, bool plusIsSpace);

// A request target ("/path?name=value&...") split and decoded. A repeated query name keeps its
// first value.
struct RequestTarget {
  std::string path;
  std::map<std::string, std::string> query;
};

// Nullopt with *error saying what is wrong when the target is not an origin-form path or does not
// decode to UTF-8.
std::optional<RequestTarget> parseRequestTarget(std::string_view target, std::string* error);

// s for one field of a log line: control characters, backslashes, C1 controls and bytes that are
// not UTF-8 become \xNN, so that nothing a client sends can start or forge a line. Longer than
// maxBytes: cut there with "...".
std::string escapeForLog(std::string_view s, size_t maxBytes = 1024);

}  // namespace omra::server
