// The one reader for JSON that comes from outside the process (network bodies and answers, files,
// recordings, stored items): it checks size, nesting depth and UTF-8 before any document is built,
// so a hostile text can neither exhaust the stack nor smuggle bytes that a later dump would throw
// on. Plain functions; thread-safe.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace omra {

// Copying, comparing and destroying a document recurse once per level: 64 levels is far more than
// any message of ours needs and far less than any stack allows.
inline constexpr int kMaxJsonDepth = 64;
inline constexpr size_t kMaxJsonBytes = 64u << 20;

struct JsonLimits {
  int maxDepth = kMaxJsonDepth;
  size_t maxBytes = kMaxJsonBytes;
};

// The text as an ordered document, or none with *error (when given) saying why: empty, too large,
// nested too deep, invalid UTF-8, or malformed (with the byte offset). The error text is plain
// ASCII, so it can itself go into a JSON answer or a log. Never throws.
std::optional<nlohmann::ordered_json> readJson(std::string_view text, std::string* error = nullptr,
                                               JsonLimits limits = {});

// The length (1 to 4) of the well-formed UTF-8 sequence at text[at], or 0 when none starts there;
// *codePoint, when given, receives its value. at must be within text.
size_t utf8SequenceAt(std::string_view text, size_t at, char32_t* codePoint = nullptr);

// Whether text is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isValidUtf8(std::string_view text);

// text with every byte that does not start a valid UTF-8 sequence replaced by U+FFFD: for
// messages that quote outside input (a query parameter, say) and must still encode as JSON.
std::string toValidUtf8(std::string_view text);

// The document as compact text; strings that are not valid UTF-8 come out with U+FFFD in place of
// the bad bytes instead of throwing. For logs and for values that were validated already.
std::string dumpJson(const nlohmann::ordered_json& value);

// Appends text as a JSON string, as nlohmann's dump writes it (UTF-8 kept, control bytes
// escaped); false, with nothing appended, when the text is not UTF-8.
bool appendJsonText(std::string& out, std::string_view text);

}  // namespace omra
