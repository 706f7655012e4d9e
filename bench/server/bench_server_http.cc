// Requests per second and p99 latency of omra-server on loopback with 16 concurrent clients
// (wrk), over the SQLite store: get_best_transform and create_map.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "server/account.h"
#include "server/ids.h"
#include "server/map_service.h"
#include "server/server.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/store/record_store_factory.h"

namespace omra::server {
namespace {

// The account every request acts for.
constexpr const char* kDigest = "0123456789abcdef0123456789abcdef";

struct WrkResult {
  double rps = 0;
  double p99Ms = 0;
};

double toMs(const std::string& value) {
  const double v = std::stod(value);
  if (value.ends_with("us")) return v / 1000;
  if (value.ends_with("ms")) return v;
  if (value.ends_with("s")) return v * 1000;
  return v;
}

// Runs wrk with 16 connections on 2 threads; the script (may be empty) shapes the request.
std::optional<WrkResult> runWrk(const std::string& url, const std::string& script) {
  std::string cmd =
      std::string("wrk -t2 -c16 -d4s --latency -H '") + kAccountHeader + ": " + kDigest + "' ";
  if (!script.empty()) cmd += "-s " + script + " ";
  cmd += "'" + url + "' 2>&1";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(cmd.c_str(), "r"), pclose);
  if (!pipe) return std::nullopt;
  WrkResult r;
  bool sawRps = false;
  char line[512];
  while (fgets(line, sizeof line, pipe.get())) {
    std::string s(line);
    std::printf("# %s", s.c_str());
    char unit[64];
    double v = 0;
    if (std::sscanf(line, " Requests/sec: %lf", &v) == 1) {
      r.rps = v;
      sawRps = true;
    } else if (std::sscanf(line, " 99%% %63s", unit) == 1) {
      r.p99Ms = toMs(unit);
    }
  }
  if (!sawRps) return std::nullopt;
  return r;
}

int run() {
  const auto dir =
      std::filesystem::temp_directory_path() / ("omra-bench-server-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::string error;
  auto store = makeRecordStore("sqlite:" + (dir / "server.db").string(), {}, nullptr, &error);
  if (!store) {
    std::fprintf(stderr, "cannot open the store: %s\n", error.c_str());
    return 1;
  }
  ServerOptions o;
  o.store = store;
  o.log = [](std::string_view) {};      // the request log line is still formatted for every request
  o.quotas = QuotaOptions{0, 0, 0, 0};  // one account makes every request here
  Server server(o);
  if (!server.start(&error)) return 1;

  // A localization session of the account with a handful of results, as a running session sees
  // it.
  const std::string session = newUuid();
  MapStore(*store).addSession(
      {session, newUuid(), "com.example.bench", accountHash(kDigest), "u", uniqueMicros()});
  for (int i = 0; i < 6; ++i) {
    TransformResultModel r;
    r.sessionId = session;
    r.timestamp = uniqueSeconds();
    r.matchValue = matchValueText(0.5 + 0.05 * i);
    r.transform = "0.5,0,1.25,0.75";
    r.localizer = i % 2 ? kSuLocalizer : kImageMatcher;
    r.suppress = i == 5;
    store->put(TransformResultModel::kTableName, r.toItem());
  }
  const std::string base = server.baseUrl() + "/prod";
  auto get = runWrk(
      base + "/maps/get_best_transform?session_id=" + session + "&localizer=su_localizer", "");
  const std::string script = (dir / "create_map.lua").string();
  std::ofstream(script) << "wrk.method = \"POST\"\n"
                           "wrk.headers[\"Content-Type\"] = \"application/json\"\n"
                           "wrk.body = '{\"app_id\":\"com.example.bench\",\"user_id\":\"u\","
                           "\"map_id\":\"room\",\"developer_key\":"
                           "\"0123456789abcdef0123456789abcdef\",\"pod_version\":\"v0.3.6\","
                           "\"data_version\":\"0.3\",\"device_version\":\"12\","
                           "\"device_model\":\"Simulator\",\"long\":2.35,\"lat\":48.85,"
                           "\"alt\":35,\"horAccuracy\":5,\"verAccuracy\":3}'\n";
  auto create = runWrk(base + "/maps/create_map", script);
  server.stop();
  store.reset();
  std::filesystem::remove_all(dir);
  if (!get || !create) {
    std::fprintf(stderr, "wrk did not run (is it installed?)\n");
    return 1;
  }
  std::printf("figure get_best_transform_rps %.0f requests/s\n", get->rps);
  std::printf("figure get_best_transform_p99 %.3f ms\n", get->p99Ms);
  std::printf("figure create_map_rps %.0f requests/s\n", create->rps);
  std::printf("figure create_map_p99 %.3f ms\n", create->p99Ms);
  return 0;
}

}  // namespace
}  // namespace omra::server

int main() { return omra::server::run(); }
