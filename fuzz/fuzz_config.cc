// The configuration file (omra.json) as loadConfig reads it: never an exception, and a refusal
// always says why.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/platform/config_loader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  omra::Config config;
  if (std::optional<std::string> error = omra::applyConfigJson(text, config)) {
    if (error->empty()) __builtin_trap();
  }
  return 0;
}
