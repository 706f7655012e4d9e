#include "src/foundation/json_reader.h"

#include <charconv>
#include <cstdint>
#include <cstring>

namespace omra {
namespace {

using Json = nlohmann::ordered_json;

// Walks the text without building anything, stopping at the first level past the limit.
class DepthCheck : public nlohmann::json_sax<Json> {
 public:
  explicit DepthCheck(int maxDepth) : maxDepth_(maxDepth) {}

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return enter(); }
  bool key(string_t&) override { return true; }
  bool end_object() override { return leave(); }
  bool start_array(std::size_t) override { return enter(); }
  bool end_array() override { return leave(); }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& e) override {
    position_ = position;
    // The lexer's own message quotes the offending bytes; only its kind is kept.
    const std::string_view what = e.what();
    badUtf8_ = what.find("UTF-8") != std::string_view::npos ||
               what.find("surrogate") != std::string_view::npos;
    return false;
  }

  bool tooDeep() const { return tooDeep_; }
  bool badUtf8() const { return badUtf8_; }
  std::size_t position() const { return position_; }

 private:
  bool enter() {
    if (++depth_ > maxDepth_) {
      tooDeep_ = true;
      return false;
    }
    return true;
  }
  bool leave() {
    --depth_;
    return true;
  }

  int maxDepth_;
  int depth_ = 0;
  bool tooDeep_ = false;
  bool badUtf8_ = false;
  std::size_t position_ = 0;
};

void setError(std::string* error, std::string message) {
  if (error) *error = std::move(message);
}

std::string number(std::size_t n) {
  char buf[24];
  return std::string(buf, std::to_chars(buf, buf + sizeof buf, n).ptr);
}

}  // namespace

std::optional<Json> readJson(std::string_view text, std::string* error, JsonLimits limits) {
  if (text.empty()) {
    setError(error, "empty JSON text");
    return std::nullopt;
  }
  if (text.size() > limits.maxBytes) {
    setError(error, "JSON text of " + number(text.size()) + " bytes is over the limit of " +
                        number(limits.maxBytes));
    return std::nullopt;
  }
  try {
    DepthCheck check(limits.maxDepth);
    if (!Json::sax_parse(text.begin(), text.end(), &check)) {
      if (check.tooDeep()) {
        setError(error, "JSON nested deeper than " + number(static_cast<size_t>(limits.maxDepth)) +
                            " levels");
      } else if (check.badUtf8()) {
        setError(error, "invalid UTF-8 in JSON text near byte " + number(check.position()));
      } else {
        setError(error, "malformed JSON near byte " + number(check.position()));
      }
      return std::nullopt;
    }
    Json parsed = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) {
      setError(error, "malformed JSON");
      return std::nullopt;
    }
    return parsed;
  } catch (const std::exception& e) {
    // Only allocation can still fail here.
    setError(error, std::string("JSON text could not be read: ") + e.what());
    return std::nullopt;
  }
}

size_t utf8SequenceAt(std::string_view text, size_t at, char32_t* codePoint) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char c = byte(at);
  size_t extra;
  char32_t cp;
  if (c < 0x80) {
    if (codePoint) *codePoint = c;
    return 1;
  } else if (c >= 0xC2 && c <= 0xDF) {
    extra = 1;
    cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    extra = 2;
    cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    extra = 3;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (text.size() - at <= extra) return 0;
  for (size_t i = 1; i <= extra; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(at + i) & 0x3F);
  }
  // Overlong forms, UTF-16 surrogates and code points past U+10FFFF.
  if ((extra == 2 && cp < 0x800) || (extra == 3 && cp < 0x10000) || cp > 0x10FFFF ||
      (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;
  }
  if (codePoint) *codePoint = cp;
  return extra + 1;
}

bool isValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    // Record texts are mostly ASCII (base64 above all): eight bytes at a time while they are.
    uint64_t word;
    if (text.size() - i >= 8 &&
        (std::memcpy(&word, text.data() + i, 8), word & 0x8080808080808080u) == 0) {
      i += 8;
      continue;
    }
    const size_t n = utf8SequenceAt(text, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string toValidUtf8(std::string_view text) {
  if (isValidUtf8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t i = 0; i < text.size();) {
    const size_t n = utf8SequenceAt(text, i);
    if (n == 0) {
      out += "\xef\xbf\xbd";
      ++i;
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
  }
  return out;
}

std::string dumpJson(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool appendJsonText(std::string& out, std::string_view text) {
  if (!isValidUtf8(text)) return false;
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  size_t plain = 0;  // start of the run not yet copied
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text.data() + plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
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
      default:
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 0xf];
    }
  }
  out.append(text.data() + plain, text.size() - plain);
  out += '"';
  return true;
}

}  // namespace omra
