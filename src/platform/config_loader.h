// Loading the kit's Config: an optional JSON file, then OMRA_* (and AWS_*) environment variables
// that override it. The README's "Configuration" section lists every key.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "omrakit/config.h"
#include "omrakit/load_config.h"

namespace omra {

// Looks up one environment variable; none when unset.
using EnvLookup = std::function<std::optional<std::string>(const std::string& name)>;

// The process environment.
EnvLookup processEnv();

// loadConfig(std::string*), the hosts' entry, is in omrakit/load_config.h; this one reads the
// environment through env and falls back to defaultFile.
std::optional<Config> loadConfig(const EnvLookup& env, std::string* error,
                                 const std::string& defaultFile = "omra.json");

// The layers on their own, applied onto config; an error text on a bad value (config is then
// partly changed).
std::optional<std::string> applyConfigJson(std::string_view text, Config& config);
std::optional<std::string> applyConfigEnv(const EnvLookup& env, Config& config);

// Where the backend store keeps its outbox when config.recordOutbox is empty:
// $XDG_STATE_HOME/omrakit/<bundle id>/record-outbox.db, ~/.local/state/... without XDG_STATE_HOME
// (the bundle identifier made file-name safe; "default" without one). None when neither variable
// is set.
std::optional<std::string> defaultRecordOutboxPath(const Config& config, const EnvLookup& env);

}  // namespace omra
