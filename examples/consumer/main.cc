// A C++ host built against the installed archive: loads the configuration as the README shows and
// compares two value types (their operator== is defaulted, which needs C++20).
#include <cstdio>
#include <string>

#include "omrakit/load_config.h"
#include "omrakit/map_asset.h"

int main() {
  std::string error;
  std::optional<omra::Config> config = omra::loadConfig(&error);
  if (!config) {
    std::fprintf(stderr, "configuration: %s\n", error.c_str());
    return 1;
  }
  const omra::MapAsset a("chair", {1, 0, 2}, 0.5f);
  if (!(a == omra::MapAsset("chair", {1, 0, 2}, 0.5f))) return 1;
  std::printf("C++ consumer: configuration loaded, maps host %s\n",
              config->endpoints.mapsProd.c_str());
  return 0;
}
