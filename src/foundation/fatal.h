// The one route for broken internal invariants: log, then abort. A host may install its own
// handler (which must not return). Thread-safe.
#pragma once

#include <functional>
#include <string_view>

namespace omra {

using FatalHandler = std::function<void(std::string_view message)>;

[[noreturn]] void fatalError(std::string_view message);
// Installs handler for all later fatal errors; an empty handler restores the default.
void setFatalHandler(FatalHandler handler);

#define OMRA_CHECK(cond, msg)                                   \
  do {                                                          \
    if (!(cond)) ::omra::fatalError(msg);                       \
  } while (0)

}  // namespace omra
