// list_nearby_maps through omra-server's HTTP front over the SQLite store, for one account holding
// 100,000 located maps: nine in ten in one city, the rest anywhere. The maps go in through the
// store's batch write (the items create_map writes); the requests, through wrk at 16 connections,
// ask about random places in the city with boxes from 2 km to 200 km across.
#include <httplib.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/server/wrk_runner.h"
#include "server/account.h"
#include "server/ids.h"
#include "server/map_service.h"
#include "server/map_store.h"
#include "server/server.h"
#include "server/server_process.h"
#include "server/server_tables.h"
#include "src/platform/store/record_store_factory.h"

namespace omra::server {
namespace {

const std::string kDigest = "0123456789abcdef0123456789abcdef";
const std::string kApp = "com.example.bench";
constexpr int kMaps = 100000;
// The city: a box of 0.3 x 0.3 degrees (about 33 km x 22 km) south-west of this corner.
constexpr double kCityLat = 48.70, kCityLon = 2.20, kCitySize = 0.3;

bool fill(RecordStore& store) {
  std::mt19937_64 rng(42);
  std::uniform_real_distribution<double> unit(0, 1);
  const std::string account = accountHash(kDigest);
  std::vector<TableItem> batch;
  const auto began = std::chrono::steady_clock::now();
  for (int i = 0; i < kMaps; ++i) {
    GeoLocation at{kCityLon + unit(rng) * kCitySize, kCityLat + unit(rng) * kCitySize, 35, 5, 3};
    if (i % 10 == 9) at = GeoLocation{unit(rng) * 360 - 180, unit(rng) * 170 - 85, 10, 8, 4};
    MapRecord m{
        newUuid(),      kApp, account, "user-" + std::to_string(i % 50), "map-" + std::to_string(i),
        uniqueMicros(), at};
    for (TableItem& t : MapStore::mapItems(m, i == 0)) batch.push_back(std::move(t));
    if (batch.size() >= 6000 || i + 1 == kMaps) {
      if (auto e = store.writeBatch(batch)) {
        std::fprintf(stderr, "cannot write the maps: %s\n", e->message.c_str());
        return false;
      }
      batch.clear();
    }
  }
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  std::printf("# %d maps written in %.1f s\n", kMaps, s);
  return true;
}

std::string body(double lat, double lon, double delta) {
  char buf[512];
  std::snprintf(buf, sizeof buf,
                R"({"app_id":"%s","longitude":%.6f,"latitude":%.6f,"longitude_delta":%g,)"
                R"("latitude_delta":%g,"developer_key":"%s"})",
                kApp.c_str(), lon, lat, delta, delta, kDigest.c_str());
  return buf;
}

int run() {
  raiseOpenFileLimit();
  tuneMallocForServer();
  const auto dir =
      std::filesystem::temp_directory_path() / ("omra-bench-nearby-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  // OMRA_BENCH_NEARBY_DB names a store to keep between runs: filled on the first.
  const char* kept = std::getenv("OMRA_BENCH_NEARBY_DB");
  const std::string path = kept ? kept : (dir / "server.db").string();
  const bool filled = kept && std::filesystem::exists(path);
  std::string error;
  auto store = makeRecordStore("sqlite:" + path, {}, nullptr, &error);
  if (!store || createAllTables(*store) || (!filled && !fill(*store))) {
    std::fprintf(stderr, "cannot prepare the store: %s\n", error.c_str());
    return 1;
  }
  ServerOptions o;
  o.store = store;
  o.log = [](std::string_view) {};
  o.quotas = QuotaOptions{0, 0, 0, 0};
  Server server(o);
  if (!server.start(&error)) return 1;
  const std::string url = server.baseUrl() + "/prod/maps/list_nearby_maps";

  // The search alone, in this thread: entries read and CPU time per listing (the machine may be
  // shared; CPU time is not).
  {
    MapStore direct(*store);
    std::mt19937_64 rng(3);
    std::uniform_real_distribution<double> unit(0, 1);
    for (double delta : {0.02, 0.2, 2.0}) {
      size_t read = 0, cells = 0;
      double cpuMs = 0;
      constexpr int kRuns = 200;
      for (int i = 0; i < kRuns; ++i) {
        NearbyQuery q;
        q.appId = kApp;
        q.account = accountHash(kDigest);
        q.box = GeoBox{kCityLat + unit(rng) * kCitySize, kCityLon + unit(rng) * kCitySize,
                       delta / 2, delta / 2};
        timespec a{}, b{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &a);
        std::optional<StoreError> e;
        const NearbyPage page = direct.nearbyMaps(q, &e);
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &b);
        if (e) return 1;
        read += page.itemsRead;
        cells += page.cellsRead;
        cpuMs += (b.tv_sec - a.tv_sec) * 1e3 + (b.tv_nsec - a.tv_nsec) / 1e6;
      }
      std::printf(
          "# search alone, box %g deg: %.0f entries in %.0f cells read, %.2f ms CPU per listing\n",
          delta, static_cast<double>(read) / kRuns, static_cast<double>(cells) / kRuns,
          cpuMs / kRuns);
    }
  }

  // A look at what the answers hold, one request at a time.
  httplib::Client client("127.0.0.1", server.port());
  const httplib::Headers account{{kAccountHeader, kDigest}};
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> unit(0, 1);
  const double deltas[] = {0.02, 0.2, 2};
  for (double delta : deltas) {
    size_t maps = 0, bytes = 0, pages = 0;
    constexpr int kSamples = 50;
    for (int i = 0; i < kSamples; ++i) {
      auto res = client.Post(
          "/prod/maps/list_nearby_maps", account,
          body(kCityLat + unit(rng) * kCitySize, kCityLon + unit(rng) * kCitySize, delta),
          "application/json");
      if (!res || res->status != 200) {
        std::fprintf(stderr, "list_nearby_maps failed: %s\n", res ? res->body.c_str() : "");
        return 1;
      }
      maps += Json::parse(res->body).size();
      bytes += res->body.size();
      pages += res->has_header(kNextPageHeader);
    }
    std::printf("# box %g deg: %.1f maps, %.0f bytes per answer; %zu of %d with a next page\n",
                delta, static_cast<double>(maps) / kSamples, static_cast<double>(bytes) / kSamples,
                pages, kSamples);
  }

  // Seven in ten requests about a neighbourhood, two about the city, one about the region.
  const std::string script = (dir / "nearby.lua").string();
  std::ofstream(script)
      << "math.randomseed(7)\n"
         "wrk.method = \"POST\"\n"
         "wrk.headers[\"Content-Type\"] = \"application/json\"\n"
         "local deltas = {0.02, 0.02, 0.02, 0.02, 0.02, 0.02, 0.02, 0.2, 0.2, 2}\n"
         "request = function()\n"
         "  local d = deltas[math.random(#deltas)]\n"
         "  local body = string.format('{\"app_id\":\""
      << kApp
      << "\",\"longitude\":%.6f,\"latitude\":%.6f,\"longitude_delta\":%g,"
         "\"latitude_delta\":%g,\"developer_key\":\""
      << kDigest << "\"}', " << kCityLon << " + math.random() * " << kCitySize << ", " << kCityLat
      << " + math.random() * " << kCitySize
      << ", d, d)\n"
         "  return wrk.format(nil, nil, nil, body)\n"
         "end\n";
  auto r = runWrk(url, 16, std::string(kAccountHeader) + ": " + kDigest, script, 6);
  server.stop();
  store.reset();
  std::filesystem::remove_all(dir);
  if (!r) {
    std::fprintf(stderr, "wrk did not run (is it installed?)\n");
    return 1;
  }
  std::printf("# %ld socket errors, %ld non-2xx answers\n", r->socketErrors, r->non2xx);
  std::printf("figure server_nearby_maps_p99_ms_100k %.3f ms\n", r->p99Ms);
  std::printf("figure server_nearby_maps_rps_100k %.0f req/s\n", r->rps);
  return r->non2xx == 0 ? 0 : 1;
}

}  // namespace
}  // namespace omra::server

int main() { return omra::server::run(); }
