#include "server/record_batch_reader.h"

#include <algorithm>
#include <charconv>

#include "server/record_batch.h"
#include "src/foundation/json_reader.h"
#include "src/platform/store/base64.h"

namespace omra::server {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendUtf8(std::string* out, char32_t cp) {
  if (cp < 0x80) {
    *out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out += static_cast<char>(0xC0 | (cp >> 6));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out += static_cast<char>(0xE0 | (cp >> 12));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (cp >> 18));
    *out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Whether a number of that text, valid by the grammar and out of a double's range, is too large
// (rather than too small, which reads as zero): by its decimal exponent, which lies hundreds away
// from zero either way.
bool overflows(std::string_view text) {
  size_t i = text.starts_with('-') ? 1 : 0;
  int64_t magnitude = 0;  // the power of ten of the first non-zero digit, plus one
  bool seenNonZero = false;
  for (; i < text.size() && isDigit(text[i]); ++i) {
    if (text[i] != '0') seenNonZero = true;
    if (seenNonZero) ++magnitude;
  }
  if (i < text.size() && text[i] == '.') {
    for (++i; i < text.size() && isDigit(text[i]); ++i) {
      if (seenNonZero) continue;
      if (text[i] != '0') {
        seenNonZero = true;
      } else {
        --magnitude;
      }
    }
  }
  if (!seenNonZero) return false;
  int64_t exponent = 0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    const bool negative = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) ++i;
    for (; i < text.size(); ++i) exponent = std::min<int64_t>(exponent * 10 + (text[i] - '0'), 1e9);
    if (negative) exponent = -exponent;
  }
  return magnitude + exponent > 0;
}

constexpr const char* kOneTypeKey = "an attribute value must be an object with one type key";

}  // namespace

RecordBatchReader::RecordBatchReader(std::string_view body, ItemCheck check)
    : p_(body.data()), end_(body.data() + body.size()), check_(check) {}

void RecordBatchReader::problem(std::string message, std::optional<std::string> table,
                                size_t index) {
  if (failed_) return;
  failed_ = true;
  fault_ = Fault{std::move(message), std::move(table), index};
}

bool RecordBatchReader::read() {
  if (end_ - p_ >= 3 && std::string_view(p_, 3) == "\xEF\xBB\xBF") p_ += 3;
  bool sawRequestItems = false;
  bool ok = true;
  if (!peek('{')) {
    ok = skipValue();
    problem("Request body must be a JSON object");
  } else {
    ++p_;
    std::string key;
    for (bool first = true; nextMember(first, &key, &ok); first = false) {
      if (key != "RequestItems" || failed_) {
        if (!skipValue()) {
          ok = false;
          break;
        }
        continue;
      }
      if (sawRequestItems) problem("\"RequestItems\" appears twice");
      sawRequestItems = true;
      if (!peek('{')) problem("\"RequestItems\" must be an object of tables");
      if (!(failed_ ? skipValue() : requestItems())) {
        ok = false;
        break;
      }
    }
  }
  skipBlanks();
  if (!ok || p_ != end_) {
    fault_ = Fault{"Request body is not JSON", std::nullopt, 0};
    return false;
  }
  if (!sawRequestItems) problem("\"RequestItems\" must be an object of tables");
  if (!failed_ && items_.empty()) problem("The batch holds no items");
  return !failed_;
}

bool RecordBatchReader::requestItems() {
  take('{');
  std::vector<std::string> seen;
  std::string table;
  bool ok = true;
  for (bool first = true; nextMember(first, &table, &ok); first = false) {
    if (!failed_) {
      if (!isRecordTable(table)) {
        problem("Unknown record table \"" + table + "\"");
      } else if (std::find(seen.begin(), seen.end(), table) != seen.end()) {
        problem("Record table \"" + table + "\" appears twice in \"RequestItems\"");
      } else if (!peek('[')) {
        problem("\"" + table + "\" must be an array of write requests");
      }
      seen.push_back(table);
    }
    if (!(failed_ ? skipValue() : tableList(table))) return false;
  }
  return ok;
}

bool RecordBatchReader::tableList(const std::string& table) {
  take('[');
  bool ok = true;
  size_t index = 0;
  for (bool first = true; nextElement(first, &ok); first = false, ++index) {
    if (failed_) {
      if (!skipValue()) return false;
      continue;
    }
    std::optional<std::string> why;
    if (!writeRequest(table, index, &why)) return false;
    if (why) problem(table + "[" + std::to_string(index) + "]: " + *why, table, index);
  }
  return ok;
}

bool RecordBatchReader::writeRequest(const std::string& table, size_t index,
                                     std::optional<std::string>* why) {
  static const std::string kShape = "must be an object holding only \"PutRequest\"";
  if (!peek('{')) {
    *why = kShape;
    return skipValue();
  }
  ++p_;
  Item item;
  bool holdsItem = false, shaped = true;
  std::optional<std::string> putWhy;
  std::string key;
  bool ok = true;
  size_t members = 0;
  for (bool first = true; nextMember(first, &key, &ok); first = false) {
    if (members++ == 0 && key == "PutRequest") {
      if (!putRequest(&item, &holdsItem, &putWhy)) return false;
    } else {
      shaped = false;
      if (!skipValue()) return false;
    }
  }
  if (!ok) return false;
  if (!shaped || members != 1) {
    *why = kShape;
  } else if (putWhy) {
    *why = std::move(putWhy);
  } else if (auto bad = check_(table, index, item)) {
    *why = std::move(bad);
  } else {
    items_.push_back({table, std::move(item)});
    indexes_.push_back(index);
  }
  return true;
}

bool RecordBatchReader::putRequest(Item* out, bool* holdsItem, std::optional<std::string>* why) {
  static const std::string kNoItem = "\"PutRequest\" must hold an \"Item\"";
  if (!peek('{')) {
    *why = kNoItem;
    return skipValue();
  }
  ++p_;
  std::optional<std::string> itemWhy;
  size_t items = 0;
  std::string key;
  bool ok = true;
  for (bool first = true; nextMember(first, &key, &ok); first = false) {
    if (key == "Item" && items++ == 0) {
      if (!item(out, &itemWhy)) return false;
    } else if (!skipValue()) {
      return false;
    }
  }
  if (!ok) return false;
  *holdsItem = items == 1;
  if (items == 0) {
    *why = kNoItem;
  } else if (items > 1) {
    *why = "\"PutRequest\" must hold one \"Item\"";
  } else if (itemWhy) {
    *why = "the item is not readable: " + *itemWhy;
  }
  return true;
}

bool RecordBatchReader::item(Item* out, std::optional<std::string>* why) {
  if (!peek('{')) {
    *why = "an item must be an object";
    return skipValue();
  }
  ++p_;
  std::string name;
  bool ok = true;
  for (bool first = true; nextMember(first, &name, &ok); first = false) {
    if (*why) {
      if (!skipValue()) return false;
      continue;
    }
    AttributeValue value;
    std::optional<std::string> valueWhy;
    if (!attribute(&value, &valueWhy)) return false;
    if (valueWhy) {
      *why = "attribute " + name + ": " + *valueWhy;
    } else if (!out->try_emplace(std::move(name), std::move(value)).second) {
      *why = "attribute " + name + " appears twice";
    }
  }
  return ok;
}

bool RecordBatchReader::attribute(AttributeValue* out, std::optional<std::string>* why) {
  if (!peek('{')) {
    *why = kOneTypeKey;
    return skipValue();
  }
  ++p_;
  std::optional<std::string> typeWhy;
  size_t members = 0;
  std::string type;
  bool ok = true;
  for (bool first = true; nextMember(first, &type, &ok); first = false) {
    if (members++ > 0) {
      if (!skipValue()) return false;
      continue;
    }
    if (type == "S" || type == "N" || type == "B") {
      if (!peek('"')) {
        typeWhy = "the value of a " + type + " attribute must be a string";
        if (!skipValue()) return false;
        continue;
      }
      if (type == "B") {
        std::string_view raw;
        if (!stringView(&raw, &scratch_)) return false;
        std::optional<std::string> bytes = base64Decode(raw);
        if (!bytes) {
          typeWhy = "a B attribute is not valid base64";
        } else {
          *out = AttributeValue::bytes(std::move(*bytes));
        }
      } else {
        out->type = type == "S" ? AttributeValue::Type::kString : AttributeValue::Type::kNumber;
        if (!string(&out->text)) return false;
      }
    } else if (type == "M") {
      if (!stringMap(out, &typeWhy)) return false;
    } else {
      typeWhy = "unsupported attribute type " + type;
      if (!skipValue()) return false;
    }
  }
  if (!ok) return false;
  if (members != 1) {
    *why = kOneTypeKey;
  } else if (typeWhy) {
    *why = std::move(typeWhy);
  }
  return true;
}

bool RecordBatchReader::stringMap(AttributeValue* out, std::optional<std::string>* why) {
  if (!peek('{')) {
    *why = "the value of an M attribute must be an object";
    return skipValue();
  }
  ++p_;
  std::map<std::string, std::string> entries;
  std::string key, inner;
  bool ok = true;
  for (bool first = true; nextMember(first, &key, &ok); first = false) {
    if (*why) {
      if (!skipValue()) return false;
      continue;
    }
    // {"S": text} and nothing else.
    bool good = false;
    if (!peek('{')) {
      if (!skipValue()) return false;
    } else {
      ++p_;
      size_t members = 0;
      bool innerOk = true;
      std::string text;
      for (bool f = true; nextMember(f, &inner, &innerOk); f = false) {
        if (members++ == 0 && inner == "S" && peek('"')) {
          if (!string(&text)) return false;
          good = true;
        } else if (!skipValue()) {
          return false;
        }
      }
      if (!innerOk) return false;
      good = good && members == 1;
      if (good && !entries.emplace(key, std::move(text)).second) {
        *why = "map entry " + key + " appears twice";
        continue;
      }
    }
    if (!good) *why = "map entry " + key + " is not a string value";
  }
  if (!ok) return false;
  if (!*why) *out = AttributeValue::stringMap(std::move(entries));
  return true;
}

void RecordBatchReader::skipBlanks() {
  while (p_ != end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
}

bool RecordBatchReader::peek(char c) {
  skipBlanks();
  return p_ != end_ && *p_ == c;
}

bool RecordBatchReader::take(char c) {
  if (!peek(c)) return false;
  ++p_;
  return true;
}

bool RecordBatchReader::nextMember(bool first, std::string* key, bool* ok) {
  if (take('}')) return false;
  if (!first && !take(',')) return *ok = false;
  if (!peek('"') || !string(key) || !take(':')) return *ok = false;
  return true;
}

bool RecordBatchReader::nextElement(bool first, bool* ok) {
  if (take(']')) return false;
  if (!first && !take(',')) return *ok = false;
  return true;
}

bool RecordBatchReader::string(std::string* out) {
  out->clear();
  ++p_;  // the opening quote, which the caller saw
  for (;;) {
    const char* run = p_;
    while (p_ != end_) {
      const auto c = static_cast<unsigned char>(*p_);
      if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\') break;
      ++p_;
    }
    out->append(run, static_cast<size_t>(p_ - run));
    if (p_ == end_) return false;
    const auto c = static_cast<unsigned char>(*p_);
    if (c == '"') {
      ++p_;
      return true;
    }
    if (c < 0x20) return false;
    if (c >= 0x80) {
      const size_t n = utf8SequenceAt(std::string_view(p_, static_cast<size_t>(end_ - p_)), 0);
      if (n == 0) return false;
      out->append(p_, n);
      p_ += n;
      continue;
    }
    // An escape.
    if (++p_ == end_) return false;
    const char e = *p_++;
    switch (e) {
      case '"':
      case '\\':
      case '/':
        *out += e;
        continue;
      case 'b':
        *out += '\b';
        continue;
      case 'f':
        *out += '\f';
        continue;
      case 'n':
        *out += '\n';
        continue;
      case 'r':
        *out += '\r';
        continue;
      case 't':
        *out += '\t';
        continue;
      case 'u':
        break;
      default:
        return false;
    }
    auto hex4 = [&](char32_t* v) {
      if (end_ - p_ < 4) return false;
      *v = 0;
      for (int i = 0; i < 4; ++i) {
        const int h = hexValue(*p_++);
        if (h < 0) return false;
        *v = (*v << 4) | static_cast<char32_t>(h);
      }
      return true;
    };
    char32_t cp;
    if (!hex4(&cp)) return false;
    if (cp >= 0xDC00 && cp <= 0xDFFF) return false;
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      char32_t low;
      if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
      p_ += 2;
      if (!hex4(&low) || low < 0xDC00 || low > 0xDFFF) return false;
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    }
    appendUtf8(out, cp);
  }
}

bool RecordBatchReader::stringView(std::string_view* raw, std::string* decoded) {
  const char* start = p_ + 1;
  for (const char* q = start; q != end_; ++q) {
    const auto c = static_cast<unsigned char>(*q);
    if (c == '"') {
      *raw = std::string_view(start, static_cast<size_t>(q - start));
      p_ = q + 1;
      return true;
    }
    if (c < 0x20 || c >= 0x80 || c == '\\') break;
  }
  if (!string(decoded)) return false;
  *raw = *decoded;
  return true;
}

bool RecordBatchReader::number() {
  const char* start = p_;
  if (p_ != end_ && *p_ == '-') ++p_;
  if (p_ == end_) return false;
  bool fraction = false;
  if (*p_ == '0') {
    ++p_;
  } else if (*p_ >= '1' && *p_ <= '9') {
    while (p_ != end_ && isDigit(*p_)) ++p_;
  } else {
    return false;
  }
  if (p_ != end_ && *p_ == '.') {
    fraction = true;
    if (++p_ == end_ || !isDigit(*p_)) return false;
    while (p_ != end_ && isDigit(*p_)) ++p_;
  }
  if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
    fraction = true;
    if (++p_ != end_ && (*p_ == '+' || *p_ == '-')) ++p_;
    if (p_ == end_ || !isDigit(*p_)) return false;
    while (p_ != end_ && isDigit(*p_)) ++p_;
  }
  // Whole numbers within 64 bits are integers to nlohmann; anything else becomes a double, and
  // one that overflows is refused.
  const std::string_view text(start, static_cast<size_t>(p_ - start));
  if (!fraction && text.size() < 19) return true;
  double v = 0;
  const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec == std::errc::result_out_of_range) return !overflows(text);
  return ec == std::errc() && ptr == text.data() + text.size();
}

bool RecordBatchReader::literal() {
  for (std::string_view word : {"true", "false", "null"}) {
    if (static_cast<size_t>(end_ - p_) >= word.size() &&
        std::string_view(p_, word.size()) == word) {
      p_ += word.size();
      return true;
    }
  }
  return false;
}

bool RecordBatchReader::skipValue() {
  std::vector<char> open;  // the containers around the value being read: '{' or '['
  for (;;) {
    // A value.
    skipBlanks();
    if (p_ == end_) return false;
    bool closed = true;  // the value is whole (not a container just opened)
    const char c = *p_;
    if (c == '{' || c == '[') {
      ++p_;
      if (take(c == '{' ? '}' : ']')) {
        closed = true;
      } else {
        open.push_back(c);
        closed = false;
        if (c == '{' && (!peek('"') || !string(&scratch_) || !take(':'))) return false;
      }
    } else if (c == '"') {
      if (!string(&scratch_)) return false;
    } else if (c == '-' || isDigit(c)) {
      if (!number()) return false;
    } else if (!literal()) {
      return false;
    }
    if (!closed) continue;
    // After a whole value: close containers, or move on to the next member or element.
    for (;;) {
      if (open.empty()) return true;
      const char container = open.back();
      if (take(container == '{' ? '}' : ']')) {
        open.pop_back();
        continue;
      }
      if (!take(',')) return false;
      if (container == '{' && (!peek('"') || !string(&scratch_) || !take(':'))) return false;
      break;
    }
  }
}

}  // namespace omra::server
