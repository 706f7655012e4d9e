#include "server/json_text.h"

#include <charconv>
#include <cmath>

#include "src/foundation/json_reader.h"

namespace omra::server {

void appendJsonString(std::string& out, std::string_view s) {
  // A byte that is not UTF-8 (an item written by something else) comes out as U+FFFD.
  if (!appendJsonText(out, s)) appendJsonText(out, toValidUtf8(s));
}

void appendJsonNumber(std::string& out, double v) {
  if (!std::isfinite(v)) {
    out += "null";
    return;
  }
  char buf[32];
  const auto res = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, res.ptr);
}

}  // namespace omra::server
