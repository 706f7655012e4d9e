#include "src/platform/md5.h"

#include <openssl/evp.h>

#include "src/foundation/fatal.h"

namespace omra {

std::string md5Hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) != 1 ||
      length != 16) {
    fatalError("OpenSSL could not compute an MD5 digest");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out(32, '0');
  for (unsigned i = 0; i < 16; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 0xF];
  }
  return out;
}

}  // namespace omra
