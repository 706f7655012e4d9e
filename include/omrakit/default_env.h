// The default Env on Linux, built from the kit's configuration: the real services a host gets when
// it brings none of its own.
#pragma once

#include <optional>
#include <string>

#include "omrakit/config.h"
#include "omrakit/platform/env.h"

namespace omra {

// Builds an AsioDispatcher (kit-owned main thread), a CurlHttpClient, a ConsoleLogger, a
// LinuxDeviceInfo, the configured metrics sink and record store (with the six record tables
// created), a FixedLocationSource when a location is configured, and the detector model when a
// model path is configured. Also points the process-wide endpoints at config.endpoints.
// A detector model that cannot be loaded is logged and left out (the session then runs without
// scene understanding). Returns none, with *error set, when the record store cannot be opened.
//
// The caller owns the result; destroy it only after every session made with it (its dispatcher
// must outlive them). Thread-safe.
std::optional<Env> makeDefaultEnv(const Config& config, std::string* error = nullptr);

}  // namespace omra
