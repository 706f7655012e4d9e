#include "server/account.h"

#include <openssl/evp.h>

#include <algorithm>

#include "src/foundation/fatal.h"

namespace omra::server {

bool isAccountDigest(std::string_view text) {
  if (text.size() != 32) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

std::string accountHash(std::string_view digest) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  const bool ok = EVP_Digest(digest.data(), digest.size(), out, &size, EVP_sha256(), nullptr) == 1;
  OMRA_CHECK(ok, "SHA-256 is unavailable");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (unsigned int i = 0; i < size; ++i) {
    hex += kHex[out[i] >> 4];
    hex += kHex[out[i] & 0xF];
  }
  return hex;
}

bool parseAllowedKeys(std::string_view text, std::set<std::string>* out, std::string* error) {
  size_t lineNumber = 0;
  while (!text.empty()) {
    ++lineNumber;
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    line = line.substr(0, std::min(line.find('#'), line.size()));
    constexpr std::string_view kSpace = " \t\r";
    const size_t first = line.find_first_not_of(kSpace);
    if (first == std::string_view::npos) continue;
    line = line.substr(first, line.find_last_not_of(kSpace) - first + 1);
    if (!isAccountDigest(line)) {
      *error = "line " + std::to_string(lineNumber) +
               ": not a developer-key digest (32 lower-case hexadecimal digits)";
      return false;
    }
    out->emplace(line);
  }
  return true;
}

}  // namespace omra::server
