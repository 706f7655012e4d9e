#include "src/foundation/number_format.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace omra {
namespace {

// Beyond 2^24 not every integer is a float, so larger magnitudes switch to the exponent form.
constexpr float kLargestPlainMagnitude = 16777216.0f;

}  // namespace

void appendFloatShortest(std::string& out, float value) {
  if (std::isnan(value)) {
    out += "nan";
    return;
  }
  if (std::isinf(value)) {
    out += value < 0 ? "-inf" : "inf";
    return;
  }
  // The scientific form gives the shortest round-trip digits and the exponent in one go:
  // [-]d[.ddd]e(+|-)XX.
  char buf[32];
  const auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific);
  const char* p = buf;
  const char* end = res.ptr;
  const bool negative = *p == '-';
  if (negative) ++p;
  char digits[16];
  int digitCount = 0;
  while (p < end && *p != 'e') {
    if (*p != '.') digits[digitCount++] = *p;
    ++p;
  }
  int exponent = 0;  // value = d.ddd x 10^exponent
  if (p < end) std::from_chars(p + (p[1] == '+' ? 2 : 1), end, exponent);

  if (negative) out += '-';
  if (exponent < -4 || std::fabs(value) > kLargestPlainMagnitude) {
    out += digits[0];
    if (digitCount > 1) {
      out += '.';
      out.append(digits + 1, static_cast<size_t>(digitCount - 1));
    }
    out += 'e';
    out += exponent < 0 ? '-' : '+';
    const int magnitude = std::abs(exponent);  // at most 45 for a float
    out += static_cast<char>('0' + magnitude / 10);
    out += static_cast<char>('0' + magnitude % 10);
    return;
  }
  if (exponent < 0) {
    out += "0.";
    out.append(static_cast<size_t>(-exponent - 1), '0');
    out.append(digits, static_cast<size_t>(digitCount));
    return;
  }
  const int integerDigits = exponent + 1;
  if (digitCount <= integerDigits) {
    out.append(digits, static_cast<size_t>(digitCount));
    out.append(static_cast<size_t>(integerDigits - digitCount), '0');
    out += ".0";
  } else {
    out.append(digits, static_cast<size_t>(integerDigits));
    out += '.';
    out.append(digits + integerDigits, static_cast<size_t>(digitCount - integerDigits));
  }
}

std::string formatFloatShortest(float value) {
  std::string out;
  appendFloatShortest(out, value);
  return out;
}

}  // namespace omra

namespace omra {
namespace {

bool appendSpecial(std::string& out, double value) {
  if (std::isnan(value)) {
    out += "nan";
  } else if (std::isinf(value)) {
    out += value < 0 ? "-inf" : "inf";
  } else {
    return false;
  }
  return true;
}

}  // namespace

void appendFixed(std::string& out, double value, int decimals) {
  if (appendSpecial(out, value)) return;
  // The largest double has 309 digits before the point.
  char buf[330 + 64];
  if (decimals < 0) decimals = 0;
  if (decimals > 60) decimals = 60;
  const auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, decimals);
  out.append(buf, res.ptr);
}

void appendDoubleShortest(std::string& out, double value) {
  if (appendSpecial(out, value)) return;
  char buf[32];
  const auto res = std::to_chars(buf, buf + sizeof buf, value);
  out.append(buf, res.ptr);
}

}  // namespace omra
