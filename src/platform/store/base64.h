// Standard base64 (RFC 4648, with padding), as DynamoDB's JSON carries binary attributes.
// Plain functions; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace omra {

std::string base64Encode(std::string_view bytes);
// Absent when text is not valid padded base64.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace omra
