#include "server/json_text.h"

#include <charconv>
#include <cmath>

#include "src/foundation/json_reader.h"

namespace omra::server {

namespace {

void appendEscaped(std::string& out, std::string_view s) {
  static constexpr char kHex[] = "0123456789abcdef";
  size_t plain = 0;  // start of the run copied as it is
  for (size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(s.substr(plain, i - plain));
    plain = i + 1;
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
  }
  out.append(s.substr(plain));
}

}  // namespace

void appendJsonString(std::string& out, std::string_view s) {
  out += '"';
  // A byte that is not UTF-8 (an item written by something else) comes out as U+FFFD.
  if (isValidUtf8(s)) {
    appendEscaped(out, s);
  } else {
    appendEscaped(out, toValidUtf8(s));
  }
  out += '"';
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
