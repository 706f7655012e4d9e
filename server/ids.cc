#include "server/ids.h"

#include <openssl/rand.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <random>

namespace omra::server {

std::string newUuid() {
  unsigned char b[16];
  if (RAND_bytes(b, sizeof b) != 1) {
    // The system generator failed; random_device is the next best unpredictable source.
    std::random_device rd;
    for (unsigned char& c : b) c = static_cast<unsigned char>(rd());
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
  char out[37];
  std::snprintf(out, sizeof out,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return out;
}

bool looksLikeUuid(const std::string& t) {
  if (t.size() != 36) return false;
  for (size_t i = 0; i < t.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (t[i] == '-')) return false;
    if (!dash && !std::isxdigit(static_cast<unsigned char>(t[i]))) return false;
  }
  return true;
}

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
