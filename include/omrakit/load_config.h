// Loading the kit's Config as a host does at start-up: an optional JSON file, then OMRA_*
// environment variables that override it (the README's "Configuration" lists every key).
#pragma once

#include <optional>
#include <string>

#include "omrakit/config.h"

namespace omra {

// Reads the file named by OMRA_CONFIG (an error when it is missing), else ./omra.json when it
// exists, then applies the environment. On a bad value or an unknown key: none, and *error names
// the key and the value. Never throws. Thread-safe as long as nobody changes the environment
// meanwhile.
std::optional<Config> loadConfig(std::string* error = nullptr);

}  // namespace omra
