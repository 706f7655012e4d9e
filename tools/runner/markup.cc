#include "tools/runner/markup.h"

#include "src/foundation/json_reader.h"
#include "src/foundation/number_format.h"

namespace omra::tools {

std::string escapeMarkup(std::string_view text) {
  const std::string valid = toValidUtf8(text);
  std::string out;
  out.reserve(valid.size() + 16);
  for (char c : valid) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string fixed(double value, int decimals) {
  std::string out;
  appendFixed(out, value, decimals);
  return out;
}

}  // namespace omra::tools
