// omra-server's allow-list file: whatever it accepts is a set of account digests.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "server/account.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::set<std::string> keys;
  std::string error;
  if (!omra::server::parseAllowedKeys(text, &keys, &error)) {
    if (error.empty()) __builtin_trap();
    return 0;
  }
  for (const std::string& k : keys) {
    if (!omra::server::isAccountDigest(k)) __builtin_trap();
  }
  return 0;
}
