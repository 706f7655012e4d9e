#include "src/platform/metric_format.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace omra {

std::string iso8601Millis(double secondsSince1970) {
  if (!std::isfinite(secondsSince1970)) secondsSince1970 = 0;
  double whole = std::floor(secondsSince1970);
  long millis = std::lround((secondsSince1970 - whole) * 1000);
  if (millis == 1000) {
    whole += 1;
    millis = 0;
  }
  std::time_t t = static_cast<std::time_t>(whole);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char out[96];
  std::snprintf(out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis);
  return out;
}

std::string shortestDouble(double value) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
  return ec == std::errc() ? std::string(buf, end) : std::string("0");
}

std::string formEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

}  // namespace omra
