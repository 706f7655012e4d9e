#include "bench/server/wrk_runner.h"

#include <cstdio>
#include <memory>

namespace omra::server {
namespace {

double toMs(const std::string& value) {
  const double v = std::stod(value);
  if (value.ends_with("us")) return v / 1000;
  if (value.ends_with("ms")) return v;
  if (value.ends_with("s")) return v * 1000;
  return v;
}

}  // namespace

std::optional<WrkResult> runWrk(const std::string& url, int connections, const std::string& header,
                                const std::string& script, int seconds) {
  std::string cmd = "wrk -t2 -c" + std::to_string(connections) + " -d" + std::to_string(seconds) +
                    "s --latency -H '" + header + "' ";
  if (!script.empty()) cmd += "-s " + script + " ";
  cmd += "'" + url + "' 2>&1";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(cmd.c_str(), "r"), pclose);
  if (!pipe) return std::nullopt;
  WrkResult r;
  bool sawRps = false;
  char line[512];
  while (fgets(line, sizeof line, pipe.get())) {
    std::printf("# %s", line);
    char unit[64];
    double v = 0;
    long a = 0, b = 0, c = 0, d = 0;
    if (std::sscanf(line, " Requests/sec: %lf", &v) == 1) {
      r.rps = v;
      sawRps = true;
    } else if (std::sscanf(line, " 99%% %63s", unit) == 1) {
      r.p99Ms = toMs(unit);
    } else if (std::sscanf(line, " Socket errors: connect %ld, read %ld, write %ld, timeout %ld",
                           &a, &b, &c, &d) == 4) {
      r.socketErrors = a + b + c + d;
    } else if (std::sscanf(line, " Non-2xx or 3xx responses: %ld", &a) == 1) {
      r.non2xx = a;
    }
  }
  if (!sawRps) return std::nullopt;
  return r;
}

}  // namespace omra::server
