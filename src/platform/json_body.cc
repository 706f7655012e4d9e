#include "src/platform/json_body.h"

namespace omra {
namespace {

// Nesting depth of a JSON text, ignoring brackets inside strings. Malformed texts may give any
// value: the parser rejects them afterwards.
int nestingDepth(std::string_view text) {
  int depth = 0, deepest = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
      if (deepest > kMaxJsonDepth) return deepest;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

}  // namespace

std::optional<Json> parseJsonBody(std::string_view body) {
  if (body.empty() || nestingDepth(body) > kMaxJsonDepth) return std::nullopt;
  Json parsed = Json::parse(body.begin(), body.end(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

}  // namespace omra
