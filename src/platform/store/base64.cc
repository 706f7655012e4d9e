#include "src/platform/store/base64.h"

#include <array>
#include <cstdint>

namespace omra {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeDecodeTable() {
  std::array<int8_t, 256> t{};
  for (auto& v : t) v = -1;
  for (int i = 0; i < 64; ++i) t[static_cast<uint8_t>(kAlphabet[i])] = static_cast<int8_t>(i);
  return t;
}
constexpr std::array<int8_t, 256> kDecode = makeDecodeTable();

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  const auto at = [&](size_t k) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[k])); };
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t v = at(i) << 16 | at(i + 1) << 8 | at(i + 2);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  const size_t rest = bytes.size() - i;
  if (rest == 1) {
    const uint32_t v = at(i) << 16;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += "==";
  } else if (rest == 2) {
    const uint32_t v = at(i) << 16 | at(i + 1) << 8;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      const char c = text[i + static_cast<size_t>(k)];
      if (c == '=' && last && k >= 2) {
        ++pad;
        v[k] = 0;
        continue;
      }
      if (pad > 0) return std::nullopt;  // data after padding
      v[k] = kDecode[static_cast<uint8_t>(c)];
      if (v[k] < 0) return std::nullopt;
    }
    const uint32_t w = static_cast<uint32_t>(v[0]) << 18 | static_cast<uint32_t>(v[1]) << 12 |
                       static_cast<uint32_t>(v[2]) << 6 | static_cast<uint32_t>(v[3]);
    out += static_cast<char>(w >> 16);
    if (pad < 2) out += static_cast<char>((w >> 8) & 0xff);
    if (pad < 1) out += static_cast<char>(w & 0xff);
  }
  return out;
}

}  // namespace omra
