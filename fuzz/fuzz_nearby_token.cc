// The nearby listing's page token as a client hands it back: a token it accepts names a cursor
// that prints to a token naming the same cursor.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "server/map_store.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto cursor = omra::server::parseNearbyToken(text);
  if (!cursor) return 0;
  if (!std::isfinite(cursor->metres) || cursor->metres < 0 || cursor->uuid.empty()) {
    __builtin_trap();
  }
  const auto again = omra::server::parseNearbyToken(omra::server::nearbyTokenText(*cursor));
  if (!again || !(*again == *cursor)) __builtin_trap();
  return 0;
}
