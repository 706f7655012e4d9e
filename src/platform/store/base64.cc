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

// Both directions write through a pointer into a string sized once: records carry their feature
// descriptors as B attributes, so these run over every byte the ingest route takes.
std::string base64Encode(std::string_view bytes) {
  std::string out((bytes.size() + 2) / 3 * 4, '=');
  char* o = out.data();
  const auto* in = reinterpret_cast<const uint8_t*>(bytes.data());
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t v = uint32_t{in[i]} << 16 | uint32_t{in[i + 1]} << 8 | in[i + 2];
    o[0] = kAlphabet[v >> 18];
    o[1] = kAlphabet[(v >> 12) & 63];
    o[2] = kAlphabet[(v >> 6) & 63];
    o[3] = kAlphabet[v & 63];
    o += 4;
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    const uint32_t v = uint32_t{in[i]} << 16 | (rest == 2 ? uint32_t{in[i + 1]} << 8 : 0);
    o[0] = kAlphabet[v >> 18];
    o[1] = kAlphabet[(v >> 12) & 63];
    if (rest == 2) o[2] = kAlphabet[(v >> 6) & 63];
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  if (text.empty()) return std::string();
  // Padding only in the last group: one or two '=' at its end.
  size_t pad = 0;
  if (text.back() == '=') pad = text[text.size() - 2] == '=' ? 2 : 1;
  std::string out(text.size() / 4 * 3 - pad, '\0');
  auto* o = reinterpret_cast<uint8_t*>(out.data());
  const auto* in = reinterpret_cast<const uint8_t*>(text.data());
  const size_t full = text.size() - (pad > 0 ? 4 : 0);
  for (size_t i = 0; i < full; i += 4) {
    const int8_t a = kDecode[in[i]], b = kDecode[in[i + 1]], c = kDecode[in[i + 2]],
                 d = kDecode[in[i + 3]];
    if ((a | b | c | d) < 0) return std::nullopt;
    const uint32_t v = static_cast<uint32_t>(a) << 18 | static_cast<uint32_t>(b) << 12 |
                       static_cast<uint32_t>(c) << 6 | static_cast<uint32_t>(d);
    o[0] = static_cast<uint8_t>(v >> 16);
    o[1] = static_cast<uint8_t>(v >> 8);
    o[2] = static_cast<uint8_t>(v);
    o += 3;
  }
  if (pad > 0) {
    const uint8_t* g = in + full;
    const int8_t a = kDecode[g[0]], b = kDecode[g[1]];
    const int8_t c = pad == 1 ? kDecode[g[2]] : int8_t{0};
    if ((a | b | c) < 0) return std::nullopt;
    const uint32_t v = static_cast<uint32_t>(a) << 18 | static_cast<uint32_t>(b) << 12 |
                       static_cast<uint32_t>(c) << 6;
    o[0] = static_cast<uint8_t>(v >> 16);
    if (pad == 1) o[1] = static_cast<uint8_t>(v >> 8);
  }
  return out;
}

}  // namespace omra
