// SessionMode: what a session does, with the integer raw values the host sees. Thread-safe.
#pragma once

#include <cstdint>
#include <optional>

namespace omra {

enum class SessionMode : int64_t {
  mapping = 0,       // record a new map and upload it
  localization = 1,  // record a new session and localize it against a stored map
};

// No value for any raw value other than 0 and 1.
constexpr std::optional<SessionMode> sessionModeFromRawValue(int64_t rawValue) {
  if (rawValue == 0 || rawValue == 1) return static_cast<SessionMode>(rawValue);
  return std::nullopt;
}

constexpr int64_t rawValue(SessionMode mode) { return static_cast<int64_t>(mode); }

}  // namespace omra
