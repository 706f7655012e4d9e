#include "src/foundation/number_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

namespace omra {
namespace {

TEST(FormatFloatShortest, Table) {
  const float kInf = std::numeric_limits<float>::infinity();
  const struct {
    float value;
    const char* text;
  } cases[] = {
      {1.0f, "1.0"},
      {-0.25f, "-0.25"},
      {1e-05f, "1e-05"},
      {-1.5e-05f, "-1.5e-05"},
      {0.001f, "0.001"},
      {0.0001f, "0.0001"},  // the smallest magnitude still written plainly
      {0.1f, "0.1"},
      {0.0f, "0.0"},
      {-0.0f, "-0.0"},
      {100.0f, "100.0"},
      {123.456f, "123.456"},
      {2.5f, "2.5"},
      {16777216.0f, "16777216.0"},  // 2^24: every integer up to here is a float
      {16777218.0f, "1.6777218e+07"},
      {1e8f, "1e+08"},
      {3.4028235e38f, "3.4028235e+38"},
      {1.17549435e-38f, "1.1754944e-38"},
      {1e-45f, "1e-45"},  // smallest subnormal
      {std::nanf(""), "nan"},
      {-std::nanf(""), "nan"},
      {kInf, "inf"},
      {-kInf, "-inf"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(formatFloatShortest(c.value), c.text) << "value " << c.value;
  }
}

// Significant digits of a number's text: mantissa digits without leading or trailing zeros.
int significantDigits(const std::string& text) {
  std::string digits;
  for (char c : text.substr(0, text.find('e'))) {
    if (c >= '0' && c <= '9') digits += c;
  }
  const size_t first = digits.find_first_not_of('0');
  if (first == std::string::npos) return 0;
  const size_t last = digits.find_last_not_of('0');
  return static_cast<int>(last - first + 1);
}

// The fewest significant digits with which printf's rounding reads back to value.
int fewestDigitsThatRoundTrip(float value) {
  char buf[64];
  for (int p = 1; p <= 9; ++p) {
    std::snprintf(buf, sizeof buf, "%.*g", p, static_cast<double>(value));
    if (std::strtof(buf, nullptr) == value) return significantDigits(buf);
  }
  return -1;
}

// Every finite float must read back exactly, carry a point or an exponent, and use no more
// significant digits than the shortest round-trip form needs.
TEST(FormatFloatShortest, RoundTripsRandomBitPatterns) {
  std::mt19937 rng(12345);
  std::uniform_int_distribution<uint32_t> bits;
  for (int i = 0; i < 20000; ++i) {
    const uint32_t b = bits(rng);
    float value;
    std::memcpy(&value, &b, sizeof value);
    if (!std::isfinite(value)) continue;
    const std::string text = formatFloatShortest(value);
    ASSERT_EQ(std::strtof(text.c_str(), nullptr), value) << text;
    ASSERT_TRUE(text.find('.') != std::string::npos || text.find('e') != std::string::npos) << text;
    ASSERT_EQ(significantDigits(text), fewestDigitsThatRoundTrip(value)) << text;
  }
}

TEST(FormatFloatShortest, AppendKeepsExistingText) {
  std::string out = "p=";
  appendFloatShortest(out, 0.5f);
  out += ',';
  appendFloatShortest(out, -2.0f);
  EXPECT_EQ(out, "p=0.5,-2.0");
}

}  // namespace
}  // namespace omra
