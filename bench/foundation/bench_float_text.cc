// Cost of the shortest float text used by every pose and point record, against printf's "%.9g"
// (the usual round-trip-safe choice, longer texts) on the same values in the same run.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "src/foundation/number_format.h"

namespace {

template <class F>
double nanosPerValue(const std::vector<float>& values, F&& format) {
  std::vector<double> runs;
  for (int rep = 0; rep < 7; ++rep) {
    const auto start = std::chrono::steady_clock::now();
    for (float v : values) format(v);
    const auto end = std::chrono::steady_clock::now();
    runs.push_back(std::chrono::duration<double, std::nano>(end - start).count() /
                   static_cast<double>(values.size()));
  }
  std::sort(runs.begin(), runs.end());
  return runs[runs.size() / 2];
}

}  // namespace

int main() {
  // Poses and feature points: metres around the origin, a few exact values, some tiny ones.
  std::mt19937 rng(7);
  std::normal_distribution<float> metres(0.0f, 2.0f);
  std::vector<float> values(400000);
  for (size_t i = 0; i < values.size(); ++i) {
    values[i] = (i % 16 == 15) ? 1.0f : (i % 37 == 0) ? metres(rng) * 1e-6f : metres(rng);
  }

  std::string out;
  out.reserve(32 * values.size());
  size_t sink = 0;
  const double ours = nanosPerValue(values, [&](float v) {
    out.clear();
    omra::appendFloatShortest(out, v);
    sink += out.size();
  });
  char buf[48];
  const double peer = nanosPerValue(values, [&](float v) {
    sink += static_cast<size_t>(std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(v)));
  });
  std::printf("figure float_text %.1f ns/value\n", ours);
  std::printf("figure float_text_snprintf_peer %.1f ns/value\n", peer);
  std::printf("figure float_text_speedup_vs_snprintf %.2f x\n", peer / ours);
  std::fflush(stdout);
  std::fprintf(stderr, "(checksum %zu)\n", sink);
  return 0;
}
