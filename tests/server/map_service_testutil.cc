#include "tests/server/map_service_testutil.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "server/server_tables.h"

namespace omra::server::testing {

RouteHarness::RouteHarness()
    : store_(std::make_shared<MemoryRecordStore>()), jobs_(std::make_unique<JobRunner>(1)) {
  if (auto e = createAllTables(*store_)) {
    std::fprintf(stderr, "RouteHarness: cannot create tables: %s\n", e->message.c_str());
    std::abort();
  }
  MapServiceOptions options;
  options.log = [](std::string_view) {};
  service_ = std::make_unique<MapService>(*store_, *jobs_, std::move(options));
}

RouteHarness::~RouteHarness() {
  // Jobs refer to the service and the store: they go first.
  jobs_.reset();
}

Request RouteHarness::request(const std::string& method, const std::string& path) {
  Request r;
  r.method = method;
  r.path = path;
  std::string name = kAccountHeader;
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  r.headers[name] = kHarnessAccount;
  return r;
}

Answer RouteHarness::post(const std::string& path, std::string body) {
  Request r = request("POST", path);
  r.headers["content-type"] = "application/json";
  r.body = std::move(body);
  return service_->handle(r);
}

Answer RouteHarness::get(const std::string& path, std::map<std::string, std::string> query) {
  Request r = request("GET", path);
  r.query = std::move(query);
  return service_->handle(r);
}

std::string RouteHarness::createMap(const std::string& name) {
  const Answer a = post("/prod/maps/create_map", openingBody(name));
  if (a.status != 200 || !a.body.contains("uuid") || !a.body["uuid"].is_string()) {
    std::fprintf(stderr, "RouteHarness: create_map answered %d\n", a.status);
    return {};
  }
  return a.body["uuid"].get<std::string>();
}

std::string openingBody(const std::string& mapName) {
  Json body = Json::object();
  body["app_id"] = "com.example.app";
  body["user_id"] = "user";
  body["map_id"] = mapName;
  body["developer_key"] = kHarnessAccount;
  body["pod_version"] = "v0.3.6";
  return body.dump();
}

}  // namespace omra::server::testing
