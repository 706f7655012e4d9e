#include "src/mapping/transform_answer.h"

#include <charconv>
#include <cmath>
#include <vector>

#include "omrakit/map_asset.h"

namespace omra {
namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// Leading numeric prefix of text as a float, as the platform's string-to-float conversion reads
// it: leading white space skipped, an optional sign, then the longest number; 0 when none.
float leadingFloat(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  // from_chars takes no sign of its own here, so "--1" and "+-1" stay non-numbers.
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) return 0;
  float value = 0;
  auto [ptr, ec] = std::from_chars(text.data() + i, text.data() + text.size(), value);
  if (ec == std::errc::result_out_of_range) {
    // Beyond float range: saturate as the platform's conversion does (to 0 or to infinity).
    std::string_view number(text.data() + i, static_cast<size_t>(ptr - (text.data() + i)));
    size_t e = number.find_first_of("eE");
    const bool tiny = e != std::string_view::npos && e + 1 < number.size() && number[e + 1] == '-';
    value = tiny ? 0.0f : HUGE_VALF;
  } else if (ec != std::errc()) {
    return 0;
  }
  return negative ? -value : value;
}

}  // namespace

std::optional<float> parseMatchValue(std::string_view text) {
  if (text.empty()) return std::nullopt;
  const char* begin = text.data();
  const char* end = text.data() + text.size();
  if (*begin == '+') ++begin;  // "+0.5" is a number too
  float value = 0;
  auto [ptr, ec] = std::from_chars(begin, end, value);
  if (ec != std::errc() || ptr != end || !std::isfinite(value)) return std::nullopt;
  return value;
}

TransformAnswerOutcome readBestTransformAnswer(const Json& answer) {
  if (!answer.is_object()) return NoTransformYet{};
  auto match = answer.find("MatchValue");
  if (match == answer.end()) return NoTransformYet{};
  if (!match->is_string()) return MalformedTransformAnswer{"\"MatchValue\" is not a string"};
  std::optional<float> value = parseMatchValue(match->get_ref<const std::string&>());
  if (!value) return MalformedTransformAnswer{"\"MatchValue\" is not a number"};
  auto localizer = answer.find("Localizer");
  if (localizer == answer.end() || !localizer->is_string()) {
    return MalformedTransformAnswer{"\"Localizer\" is missing or not a string"};
  }
  auto transform = answer.find("Transform");
  if (transform == answer.end() || !transform->is_string()) {
    return MalformedTransformAnswer{"\"Transform\" is missing or not a string"};
  }
  return BestTransformAnswer{localizer->get<std::string>(), transform->get<std::string>(), *value};
}

std::optional<YawTransform> parseTransformText(std::string_view text) {
  std::vector<float> numbers;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string_view::npos) comma = text.size();
    std::string_view piece = text.substr(start, comma - start);
    if (!piece.empty()) numbers.push_back(leadingFloat(piece));
    start = comma + 1;
  }
  if (numbers.size() < 4) return std::nullopt;
  for (int i = 0; i < 4; ++i) {
    if (!isPlausibleCoordinate(numbers[static_cast<size_t>(i)])) return std::nullopt;
  }
  return YawTransform{{numbers[0], numbers[1], numbers[2]}, numbers[3]};
}

Float3 applyYawTransform(const YawTransform& t, Float3 p) {
  const float c = std::cos(t.theta);
  const float s = std::sin(t.theta);
  return {t.translation.x + c * p.x + s * p.z, t.translation.y + p.y,
          t.translation.z - s * p.x + c * p.z};
}

}  // namespace omra
