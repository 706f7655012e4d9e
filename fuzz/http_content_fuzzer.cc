// Request bodies under a Content-Encoding: the first byte picks the coding, the rest is the body.
// The decoded body never passes the limit, whatever the input.
#include <cstddef>
#include <cstdint>
#include <string>

#include "server/content_decoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const char* const kCodings[] = {"", "gzip", "deflate", "identity, gzip", "x-gzip"};
  const char* coding = kCodings[data[0] % 5];
  constexpr size_t kLimit = 256 * 1024;
  omra::server::DecodedContent d = omra::server::decodeContent(
      coding, std::string(reinterpret_cast<const char*>(data) + 1, size - 1), kLimit);
  if (d.body.size() > kLimit) __builtin_trap();
  if (d.status != omra::server::DecodedContent::Status::ok && !d.body.empty()) __builtin_trap();
  return 0;
}
