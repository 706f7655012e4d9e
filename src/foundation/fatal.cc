#include "src/foundation/fatal.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace omra {
namespace {

std::mutex& handlerMutex() {
  static std::mutex m;
  return m;
}

FatalHandler& handler() {
  static FatalHandler h;
  return h;
}

}  // namespace

void fatalError(std::string_view message) {
  FatalHandler h;
  {
    std::lock_guard<std::mutex> lock(handlerMutex());
    h = handler();
  }
  if (h) h(message);
  std::fprintf(stderr, "omrakit fatal error: %.*s\n", static_cast<int>(message.size()),
               message.data());
  std::fflush(stderr);
  std::abort();
}

void setFatalHandler(FatalHandler h) {
  std::lock_guard<std::mutex> lock(handlerMutex());
  handler() = std::move(h);
}

}  // namespace omra
