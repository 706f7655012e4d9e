#include "server/http_text.h"

#include <cstdint>

#include "src/foundation/json_reader.h"

namespace omra::server {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendHexEscape(std::string& out, unsigned char b) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += "\\x";
  out += kHex[b >> 4];
  out += kHex[b & 0xF];
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view s, bool plusIsSpace) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (c == '%') {
      if (s.size() - i < 3) return std::nullopt;
      const int hi = hexValue(s[i + 1]), lo = hexValue(s[i + 2]);
      if (hi < 0 || lo < 0) return std::nullopt;
      out += static_cast<char>(hi * 16 + lo);
      i += 2;
    } else if (c == '+' && plusIsSpace) {
      out += ' ';
    } else {
      out += c;
    }
  }
  if (!isValidUtf8(out)) return std::nullopt;
  return out;
}

std::optional<RequestTarget> parseRequestTarget(std::string_view target, std::string* error) {
  auto fail = [&](const std::string& why) -> std::optional<RequestTarget> {
    if (error) *error = why;
    return std::nullopt;
  };
  if (target.empty() || target.front() != '/') {
    return fail("The request target must be a path starting with \"/\"");
  }
  const size_t mark = target.find('?');
  RequestTarget out;
  std::optional<std::string> path = percentDecode(target.substr(0, mark), false);
  if (!path) return fail("The path has a malformed percent escape or is not UTF-8");
  out.path = std::move(*path);
  if (mark == std::string_view::npos) return out;
  std::string_view rest = target.substr(mark + 1);
  while (!rest.empty()) {
    const size_t amp = rest.find('&');
    const std::string_view pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
    if (pair.empty()) continue;
    const size_t eq = pair.find('=');
    std::optional<std::string> name = percentDecode(pair.substr(0, eq), true);
    std::optional<std::string> value = percentDecode(
        eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1), true);
    if (!name || !value) {
      return fail("The query has a malformed percent escape or is not UTF-8");
    }
    out.query.emplace(std::move(*name), std::move(*value));
  }
  return out;
}

std::string escapeForLog(std::string_view s, size_t maxBytes) {
  const bool cut = s.size() > maxBytes;
  if (cut) s = s.substr(0, maxBytes);
  std::string out;
  out.reserve(s.size() + 8);
  for (size_t i = 0; i < s.size();) {
    const unsigned char b = static_cast<unsigned char>(s[i]);
    if (b >= 0x20 && b < 0x7F && b != '\\') {
      out += static_cast<char>(b);
      ++i;
      continue;
    }
    char32_t cp = 0;
    const size_t n = b >= 0x80 ? utf8SequenceAt(s, i, &cp) : 0;
    if (n > 1 && cp >= 0xA0 && cp != 0x2028 && cp != 0x2029) {
      out.append(s.substr(i, n));
      i += n;
      continue;
    }
    // Control characters, backslash, C1 controls, line separators and stray bytes.
    for (size_t k = 0; k < (n > 1 ? n : 1); ++k) {
      appendHexEscape(out, static_cast<unsigned char>(s[i + k]));
    }
    i += n > 1 ? n : 1;
  }
  if (cut) out += "...";
  return out;
}

}  // namespace omra::server
