// MD5 digests through OpenSSL.
#pragma once

#include <string>
#include <string_view>

namespace omra {

// The 32 lower-case hexadecimal characters of the MD5 digest of text. Thread-safe.
std::string md5Hex(std::string_view text);

}  // namespace omra
