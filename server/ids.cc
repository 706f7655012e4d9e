#include "server/ids.h"

#include <atomic>
#include <chrono>

#include "src/platform/linux_device_info.h"

namespace omra::server {

std::string newUuid() { return randomUuidV4(); }

bool looksLikeUuid(const std::string& text) { return isUuidText(text); }

int64_t uniqueMicros() {
  static std::atomic<int64_t> last{0};
  const int64_t now = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  int64_t prev = last.load();
  int64_t next;
  do {
    next = now > prev ? now : prev + 1;
  } while (!last.compare_exchange_weak(prev, next));
  return next;
}

double uniqueSeconds() { return static_cast<double>(uniqueMicros()) / 1e6; }

}  // namespace omra::server
