// Reading network bodies as JSON without exceptions and without deep recursion.
#pragma once

#include <optional>
#include <string_view>

#include "omrakit/platform/http_client.h"

namespace omra {

// Deeper documents are refused: copying or printing a Json recurses once per level.
inline constexpr int kMaxJsonDepth = 512;

// The body parsed as JSON, or none when it is empty, malformed or nested deeper than kMaxJsonDepth.
// Never throws. Thread-safe.
std::optional<Json> parseJsonBody(std::string_view body);

}  // namespace omra
