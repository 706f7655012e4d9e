#include "tests/server/map_service_testutil.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "server/server_tables.h"
#include "src/foundation/json_reader.h"

namespace omra::server::testing {

Json openingBody(const std::string& digest, const std::string& mapId) {
  return Json{{"app_id", "com.example.app"}, {"user_id", "ana"},        {"map_id", mapId},
              {"developer_key", digest},     {"pod_version", "v0.3.6"}, {"data_version", "1"}};
}

std::string openingBody(const std::string& mapName) {
  return openingBody(kHarnessAccount, mapName).dump();
}

RouteHarness::RouteHarness(MapServiceOptions options, std::shared_ptr<MemoryRecordStore> store)
    : store_(store ? std::move(store) : std::make_shared<MemoryRecordStore>()),
      jobs_(std::make_unique<JobRunner>(1)) {
  if (auto e = createAllTables(*store_)) {
    std::fprintf(stderr, "RouteHarness: cannot create tables: %s\n", e->message.c_str());
    std::abort();
  }
  if (!options.log) options.log = [](std::string_view) {};
  service_ = std::make_unique<MapService>(*store_, *jobs_, std::move(options));
}

RouteHarness::~RouteHarness() {
  // Jobs refer to the service and the store: they finish first.
  jobs_->stop();
}

Answer RouteHarness::call(const std::string& method, const std::string& path, std::string body,
                          const std::optional<std::string>& account,
                          std::map<std::string, std::string> query) {
  Request r;
  r.method = method;
  r.path = path;
  r.query = std::move(query);
  r.body = std::move(body);
  if (account) {
    std::string name = kAccountHeader;
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    r.headers[name] = *account;
  }
  Answer a = service_->handle(r);
  // An answer written as text must be JSON (a fault the fuzzers must see); tests read documents.
  if (!a.text.empty()) {
    std::string error;
    auto doc = readJson(a.text, &error);
    if (!doc) {
      std::fprintf(stderr, "answer text is not JSON (%s): %s\n", error.c_str(), a.text.c_str());
      std::abort();
    }
    a.body = std::move(*doc);
  }
  return a;
}

Answer RouteHarness::post(const std::string& path, std::string body) {
  return call("POST", path, std::move(body), kHarnessAccount);
}

Answer RouteHarness::get(const std::string& path, std::map<std::string, std::string> query) {
  return call("GET", path, "", kHarnessAccount, std::move(query));
}

std::string RouteHarness::createMap(const std::string& name) {
  const Answer a = post("/prod/maps/create_map", openingBody(name));
  if (a.status != 200 || !a.body.contains("uuid") || !a.body["uuid"].is_string()) {
    std::fprintf(stderr, "RouteHarness: create_map answered %d\n", a.status);
    return {};
  }
  return a.body["uuid"].get<std::string>();
}

}  // namespace omra::server::testing
