#include "src/platform/store/item_codec.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "src/foundation/json_reader.h"
#include "src/platform/store/item_checks.h"

namespace omra {
namespace {

// Value tags: an attribute's tag byte without kNamedByCode.
enum Tag : uint8_t {
  kString = 0,      // varint length, bytes
  kNumberText = 1,  // varint length, text
  kInteger = 2,     // zigzag varint; the text is exactly what std::to_chars writes for it
  kDouble = 3,      // 8 bytes little-endian; the text is the shortest that reads back to it
  kFloat = 4,       // 4 bytes little-endian; likewise for a float
  kBytes = 5,       // varint length, bytes
  kStringMap = 6,   // varint count, then key and value each as varint length, bytes
  kTagCount
};
// Set in the tag byte when the name is a code into kNames rather than its bytes.
constexpr uint8_t kNamedByCode = 0x80;

// Attribute names common enough to be worth a one-byte code. Stored rows refer to them by
// position: only ever append.
constexpr std::array<std::string_view, 33> kNames = {"SessionId",       "RecordId",
                                                     "FrameId",         "Timestamp",
                                                     "Features_C",      "FramesToFeatureId_C",
                                                     "Transforms",      "PositionX",
                                                     "PositionY",       "PositionZ",
                                                     "ObjectName",      "Confidence",
                                                     "ObjectId",        "IsLocalizationSession",
                                                     "PlaneId",         "Alignment",
                                                     "TransformMatrix", "Vertices",
                                                     "IsRemoved",       "Transform",
                                                     "MatchValue",      "Localizer",
                                                     "Suppress",        "Account",
                                                     "MapId",           "MapUuid",
                                                     "AppId",           "UserId",
                                                     "Latitude",        "Longitude",
                                                     "Altitude",        "HorizontalAccuracy",
                                                     "VerticalAccuracy"};

int nameCode(std::string_view name) {
  for (size_t i = 0; i < kNames.size(); ++i) {
    if (kNames[i] == name) return static_cast<int>(i);
  }
  return -1;
}

void putVarint(std::string& out, uint64_t v) {
  while (v >= 0x80) {
    out += static_cast<char>((v & 0x7f) | 0x80);
    v >>= 7;
  }
  out += static_cast<char>(v);
}

void putBytes(std::string& out, std::string_view bytes) {
  putVarint(out, bytes.size());
  out.append(bytes);
}

template <class T>
void putFixed(std::string& out, T value) {
  static_assert(std::endian::native == std::endian::little);
  char raw[sizeof(T)];
  std::memcpy(raw, &value, sizeof(T));
  out.append(raw, sizeof(T));
}

template <class T>
bool writesAs(T value, std::string_view text) {
  char buf[64];
  const auto res = std::to_chars(buf, buf + sizeof buf, value);
  return res.ec == std::errc() && std::string_view(buf, res.ptr - buf) == text;
}

template <class T>
bool parseWhole(std::string_view text, T& out) {
  const auto res = std::from_chars(text.data(), text.data() + text.size(), out);
  return res.ec == std::errc() && res.ptr == text.data() + text.size();
}

// Writes the number's value and returns its tag: binary when the text can be written back byte
// for byte, else the text.
uint8_t putNumber(std::string& out, std::string_view text) {
  int64_t i;
  if (parseWhole(text, i) && writesAs(i, text)) {
    putVarint(out, (static_cast<uint64_t>(i) << 1) ^ static_cast<uint64_t>(i >> 63));
    return kInteger;
  }
  // Shorter texts cost no more than the binary forms.
  double d;
  if (text.size() > 4 && parseWhole(text, d) && std::isfinite(d)) {
    if (std::fabs(d) <= std::numeric_limits<float>::max() &&
        writesAs(static_cast<float>(d), text)) {
      putFixed(out, static_cast<float>(d));
      return kFloat;
    }
    if (text.size() > 8 && writesAs(d, text)) {
      putFixed(out, d);
      return kDouble;
    }
  }
  putBytes(out, text);
  return kNumberText;
}

// Reads the stored form front to back; every read checks what is left.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : p_(bytes.data()), end_(bytes.data() + bytes.size()) {}
  bool done() const { return p_ == end_; }

  bool byte(uint8_t& out) {
    if (p_ == end_) return false;
    out = static_cast<uint8_t>(*p_++);
    return true;
  }
  bool varint(uint64_t& out) {
    out = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      uint8_t b;
      if (!byte(b)) return false;
      // The tenth byte has room for one bit only.
      if (shift == 63 && b > 1) return false;
      out |= static_cast<uint64_t>(b & 0x7f) << shift;
      if ((b & 0x80) == 0) return true;
    }
    return false;
  }
  bool bytes(std::string_view& out) {
    uint64_t n;
    if (!varint(n) || n > static_cast<uint64_t>(end_ - p_)) return false;
    out = std::string_view(p_, n);
    p_ += n;
    return true;
  }
  template <class T>
  bool fixed(T& out) {
    if (static_cast<size_t>(end_ - p_) < sizeof(T)) return false;
    std::memcpy(&out, p_, sizeof(T));
    p_ += sizeof(T);
    return true;
  }

 private:
  const char* p_;
  const char* end_;
};

template <class T>
std::string numberText(T value) {
  char buf[64];
  const auto res = std::to_chars(buf, buf + sizeof buf, value);
  return std::string(buf, res.ptr);
}

bool fail(std::string* error, const char* why) {
  if (error != nullptr) *error = why;
  return false;
}

bool readValue(Reader& in, uint8_t tag, AttributeValue& value, std::string* error) {
  std::string_view raw;
  switch (tag) {
    case kString:
      if (!in.bytes(raw)) return fail(error, "a string is cut short");
      if (!isValidUtf8(raw)) return fail(error, "a string is not UTF-8");
      value = AttributeValue::string(std::string(raw));
      return true;
    case kBytes:
      if (!in.bytes(raw)) return fail(error, "a binary value is cut short");
      value = AttributeValue::bytes(std::string(raw));
      return true;
    case kNumberText:
      if (!in.bytes(raw)) return fail(error, "a number is cut short");
      if (!isValidNumberText(raw)) return fail(error, "a number text is not a number");
      value = AttributeValue::numberText(std::string(raw));
      return true;
    case kInteger: {
      uint64_t z;
      if (!in.varint(z)) return fail(error, "an integer is cut short");
      const auto i = static_cast<int64_t>((z >> 1) ^ (~(z & 1) + 1));
      value = AttributeValue::numberText(numberText(i));
      return true;
    }
    case kDouble: {
      double d;
      if (!in.fixed(d)) return fail(error, "a double is cut short");
      if (!std::isfinite(d)) return fail(error, "a double is not finite");
      value = AttributeValue::numberText(numberText(d));
      return true;
    }
    case kFloat: {
      float f;
      if (!in.fixed(f)) return fail(error, "a float is cut short");
      if (!std::isfinite(f)) return fail(error, "a float is not finite");
      value = AttributeValue::numberText(numberText(f));
      return true;
    }
    case kStringMap: {
      uint64_t count;
      if (!in.varint(count)) return fail(error, "a map is cut short");
      std::map<std::string, std::string> m;
      for (uint64_t i = 0; i < count; ++i) {
        std::string_view k, v;
        if (!in.bytes(k) || !in.bytes(v)) return fail(error, "a map entry is cut short");
        if (!isValidUtf8(k) || !isValidUtf8(v)) return fail(error, "a map entry is not UTF-8");
        // Keys come in order, each once: the only way the map writes them.
        if (!m.empty() && !(m.rbegin()->first < k)) {
          return fail(error, "map keys out of order");
        }
        m.emplace_hint(m.end(), k, v);
      }
      value = AttributeValue::stringMap(std::move(m));
      return true;
    }
    default:
      return fail(error, "unknown value tag");
  }
}

}  // namespace

void encodeItem(const Item& item, std::string& out) {
  out += static_cast<char>(kItemCodecVersion);
  putVarint(out, item.size());
  for (const auto& [name, value] : item) {
    const int code = nameCode(name);
    const uint8_t nameBits = code >= 0 ? kNamedByCode : 0;
    // The tag byte goes first but is known once the value is written.
    const size_t tagAt = out.size();
    out += '\0';
    if (code >= 0) {
      putVarint(out, static_cast<uint64_t>(code));
    } else {
      putBytes(out, name);
    }
    uint8_t tag = 0;
    switch (value.type) {
      case AttributeValue::Type::kString:
        tag = kString;
        putBytes(out, value.text);
        break;
      case AttributeValue::Type::kBytes:
        tag = kBytes;
        putBytes(out, value.text);
        break;
      case AttributeValue::Type::kNumber:
        tag = putNumber(out, value.text);
        break;
      case AttributeValue::Type::kStringMap:
        tag = kStringMap;
        putVarint(out, value.map.size());
        for (const auto& [k, v] : value.map) {
          putBytes(out, k);
          putBytes(out, v);
        }
        break;
    }
    out[tagAt] = static_cast<char>(nameBits | tag);
  }
}

std::string encodeItem(const Item& item) {
  std::string out;
  encodeItem(item, out);
  return out;
}

std::optional<Item> decodeItem(std::string_view bytes, std::string* error) {
  Reader in(bytes);
  uint8_t version;
  if (!in.byte(version) || version != kItemCodecVersion) {
    fail(error, "not a stored item of a known version");
    return std::nullopt;
  }
  uint64_t count;
  if (!in.varint(count)) {
    fail(error, "the attribute count is cut short");
    return std::nullopt;
  }
  Item item;
  for (uint64_t i = 0; i < count; ++i) {
    uint8_t tagByte;
    if (!in.byte(tagByte)) {
      fail(error, "an attribute is cut short");
      return std::nullopt;
    }
    std::string name;
    if (tagByte & kNamedByCode) {
      uint64_t code;
      if (!in.varint(code) || code >= kNames.size()) {
        fail(error, "unknown attribute name code");
        return std::nullopt;
      }
      name = kNames[code];
    } else {
      std::string_view raw;
      if (!in.bytes(raw) || !isValidUtf8(raw)) {
        fail(error, "an attribute name is cut short or not UTF-8");
        return std::nullopt;
      }
      name = raw;
    }
    const uint8_t tag = tagByte & ~kNamedByCode;
    AttributeValue value;
    if (tag >= kTagCount || !readValue(in, tag, value, error)) {
      if (tag >= kTagCount) fail(error, "unknown value tag");
      return std::nullopt;
    }
    if (!item.emplace(std::move(name), std::move(value)).second) {
      fail(error, "an attribute named twice");
      return std::nullopt;
    }
  }
  if (!in.done()) {
    fail(error, "bytes after the last attribute");
    return std::nullopt;
  }
  return item;
}

}  // namespace omra
