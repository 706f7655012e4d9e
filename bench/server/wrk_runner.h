// Runs wrk against a URL and reads back its throughput, p99 latency and failures, for the server
// benchmarks. Plain functions; thread-safe.
#pragma once

#include <optional>
#include <string>

namespace omra::server {

struct WrkResult {
  double rps = 0;
  double p99Ms = 0;
  long socketErrors = 0;
  long non2xx = 0;
};

// wrk on 2 threads for seconds, with one extra header ("Name: value") and a Lua script shaping
// the requests (none when empty). wrk's output is echoed as comment lines. None when wrk did not
// run.
std::optional<WrkResult> runWrk(const std::string& url, int connections, const std::string& header,
                                const std::string& script, int seconds = 4);

}  // namespace omra::server
