// Text forms shared by the metrics sinks.
#pragma once

#include <string>
#include <string_view>

namespace omra {

// "2026-11-22T00:08:27.123Z" for seconds since 1970 (UTC, milliseconds). Thread-safe.
std::string iso8601Millis(double secondsSince1970);
// The shortest decimal text that reads back to the same double ("1", "0.25", "1e-05").
std::string shortestDouble(double value);
// application/x-www-form-urlencoded as AWS expects it: unreserved characters kept, every other
// byte as %XX (upper-case), spaces as %20.
std::string formEncode(std::string_view text);

}  // namespace omra
