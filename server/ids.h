// Identifiers and clocks of the back end. Free functions; thread-safe.
#pragma once

#include <cstdint>
#include <string>

namespace omra::server {

// A random (version 4) UUID in upper-case text, from the system's cryptographic generator, so
// that it can stand for an authorisation.
std::string newUuid();
// True for a UUID in canonical text form (any case).
bool looksLikeUuid(const std::string& text);

// Microseconds since 1970, strictly increasing within the process, so that items keyed by their
// creation time never collide here.
int64_t uniqueMicros();
// Seconds since 1970 with the fraction, strictly increasing within the process.
double uniqueSeconds();

}  // namespace omra::server
