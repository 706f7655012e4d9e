#include "src/foundation/json_reader.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "src/foundation/number_format.h"
#include "tests/common/locale_testutil.h"

namespace omra {
namespace {

using Json = nlohmann::ordered_json;

std::string nested(int depth, const std::string& inner = "1") {
  return std::string(static_cast<size_t>(depth), '[') + inner +
         std::string(static_cast<size_t>(depth), ']');
}

bool isAscii(const std::string& s) {
  for (char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

TEST(ReadJson, RefusesWhatCouldHurtAndSaysWhy) {
  const struct {
    std::string text;
    const char* says;  // nullptr: accepted
  } cases[] = {
      {R"({"b":1,"a":[true,null,"x"]})", nullptr},
      {nested(kMaxJsonDepth), nullptr},
      {nested(kMaxJsonDepth + 1), "nested deeper than 64"},
      // The shape that took the server down: a deep value followed by another key.
      {R"({"app_id": )" + nested(100000) + R"(, "x": 1})", "nested deeper"},
      {"{\"a\":" + std::string(100000, '['), "nested deeper"},
      // Brackets inside strings are text, not depth.
      {"[\"" + std::string(5000, '[') + "\"]", nullptr},
      {"", "empty"},
      {"{\"a\":", "malformed JSON near byte"},
      {"{\"a\":1} x", "malformed JSON"},
      {"[1e999]", "malformed JSON"},
      {"\"\xff\xfe\"", "invalid UTF-8"},
      {"{\"id\":\"caf\xc3\"}", "invalid UTF-8"},
      {"{\"\xc0\xaf\":1}", "invalid UTF-8"},          // overlong '/' as a key
      {"\"\xed\xa0\x80\"", "invalid UTF-8"},          // a raw surrogate
      {R"(["\ud800"])", "invalid UTF-8"},             // an unpaired escaped surrogate
      {"\"caf\xc3\xa9 \xf0\x9f\x98\x80\"", nullptr},  // two- and four-byte characters
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    std::string error;
    const std::optional<Json> parsed = readJson(c.text, &error);
    if (c.says == nullptr) {
      ASSERT_TRUE(parsed.has_value()) << error;
      EXPECT_EQ(Json::parse(c.text), *parsed);
    } else {
      EXPECT_FALSE(parsed.has_value());
      EXPECT_NE(error.find(c.says), std::string::npos) << error;
      EXPECT_TRUE(isAscii(error)) << "the error must be safe to put in a JSON answer";
    }
  }
}

TEST(ReadJson, SizeAndDepthLimitsAreTheCallers) {
  std::string error;
  EXPECT_FALSE(readJson("[1,2,3]", &error, {kMaxJsonDepth, 6}));
  EXPECT_NE(error.find("7 bytes is over the limit of 6"), std::string::npos) << error;
  EXPECT_TRUE(readJson("[1,2,3]", &error, {kMaxJsonDepth, 7}));
  EXPECT_FALSE(readJson(nested(3), &error, {2, kMaxJsonBytes}));
  EXPECT_TRUE(readJson(nested(2), &error, {2, kMaxJsonBytes}));
}

TEST(ReadJson, KeepsKeyOrderAndReadsNumbersUnderACommaLocale) {
  OMRA_UNDER_COMMA_LOCALE(locale);
  const std::optional<Json> parsed = readJson(R"({"z":0.1,"a":-2.5,"m":3.75})");
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(parsed->begin().key(), "z");
  EXPECT_EQ(parsed->at("z").get<double>(), 0.1);
  EXPECT_EQ(parsed->at("a").get<double>(), -2.5);
  EXPECT_EQ(parsed->at("m").get<double>(), 3.75);
}

TEST(IsValidUtf8, AcceptsTextOnly) {
  const struct {
    std::string bytes;
    bool valid;
  } cases[] = {
      {"", true},
      {"plain ascii", true},
      {"\xc3\xa9", true},              // é
      {"\xe2\x82\xac", true},          // €
      {"\xf4\x8f\xbf\xbf", true},      // U+10FFFF, the last code point
      {"\xff", false},                 // never a UTF-8 byte
      {"\xc3", false},                 // cut short
      {"\xe2\x82", false},             // cut short
      {"\xc3\x28", false},             // bad continuation
      {"\xc1\xbf", false},             // overlong two-byte
      {"\xe0\x80\xaf", false},         // overlong three-byte
      {"\xf0\x80\x80\xaf", false},     // overlong four-byte
      {"\xed\xa0\x80", false},         // surrogate U+D800
      {"\xf4\x90\x80\x80", false},     // past U+10FFFF
      {std::string("a\0b", 3), true},  // NUL is a character (JSON escapes it)
      // Past runs of eight ASCII bytes, which are checked a word at a time.
      {"0123456789abcdef\xff", false},
      {"0123456\xc3\xa9"
       "0123456789abcdef",
       true},
      {"01234567\xe2\x82", false},
      {"0123456789abcde\xed\xa0\x80", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isValidUtf8(c.bytes), c.valid) << ::testing::PrintToString(c.bytes);
    // The encoder agrees: what is valid dumps, what is not throws.
    bool dumps = true;
    try {
      (void)Json(c.bytes).dump();
    } catch (const Json::exception&) {
      dumps = false;
    }
    EXPECT_EQ(dumps, c.valid) << ::testing::PrintToString(c.bytes);
    // Repair keeps what is valid and makes the rest encodable.
    const std::string repaired = toValidUtf8(c.bytes);
    EXPECT_TRUE(isValidUtf8(repaired)) << ::testing::PrintToString(c.bytes);
    if (c.valid) {
      EXPECT_EQ(repaired, c.bytes);
    }
  }
}

TEST(Utf8SequenceAt, GivesLengthAndCodePointOfEachSequence) {
  const std::string text = "a\xc3\xa9\xe2\x82\xac\xf4\x8f\xbf\xbf\xc2\x85\xe2\x80\xa8\xff";
  const struct {
    size_t at, length;
    char32_t codePoint;
  } cases[] = {{0, 1, U'a'},  {1, 2, 0xE9},    {3, 3, 0x20AC}, {6, 4, 0x10FFFF},
               {10, 2, 0x85}, {12, 3, 0x2028}, {15, 0, 0},     {2, 0, 0}};
  for (const auto& c : cases) {
    char32_t cp = 0;
    EXPECT_EQ(utf8SequenceAt(text, c.at, &cp), c.length) << c.at;
    if (c.length) {
      EXPECT_EQ(cp, c.codePoint) << c.at;
    }
  }
}

TEST(DumpJson, ReplacesWhatTheEncoderWouldThrowOn) {
  EXPECT_EQ(toValidUtf8("id-\xff\xc3\xa9-\xc3"), "id-\xef\xbf\xbd\xc3\xa9-\xef\xbf\xbd");
  Json j = Json::object();
  j["id"] = std::string("a\xff") + "b";
  EXPECT_EQ(dumpJson(j),
            "{\"id\":\"a\xef\xbf\xbd"
            "b\"}");
  EXPECT_EQ(dumpJson(Json::array({1, "x"})), R"([1,"x"])");
}

TEST(NumberText, FixedAndShortestIgnoreTheLocale) {
  OMRA_UNDER_COMMA_LOCALE(locale);
  const struct {
    double value;
    int decimals;
    const char* fixed;
    const char* shortest;
  } cases[] = {
      {0.1, 6, "0.100000", "0.1"},
      {-2.5, 6, "-2.500000", "-2.5"},
      {3.75, 7, "3.7500000", "3.75"},
      {1e300, 1, nullptr, "1e+300"},
      {0.0, 0, "0", "0"},
      {std::numeric_limits<double>::quiet_NaN(), 6, "nan", "nan"},
      {-std::numeric_limits<double>::infinity(), 6, "-inf", "-inf"},
  };
  for (const auto& c : cases) {
    std::string fixed, shortest;
    appendFixed(fixed, c.value, c.decimals);
    appendDoubleShortest(shortest, c.value);
    if (c.fixed) {
      EXPECT_EQ(fixed, c.fixed);
    }
    EXPECT_EQ(shortest, c.shortest);
    // Read back in the "C" way, whatever the process locale.
    if (std::isfinite(c.value)) {
      double back = 0;
      std::from_chars(shortest.data(), shortest.data() + shortest.size(), back);
      EXPECT_EQ(back, c.value);
    }
  }
  std::string huge;
  appendFixed(huge, 1e300, 1);
  EXPECT_EQ(huge.size(), 303u);  // 301 digits, the point, one decimal
}

}  // namespace
}  // namespace omra
