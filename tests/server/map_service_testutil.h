// The routes without HTTP and without GoogleTest (the route fuzzers link it): a MapService over a
// MemoryRecordStore with every table, one job worker, and requests that carry an account header.
// The base of the route tests' ServiceHarness (service_testutil.h) and the route fuzzer's fixture.
// One per test; not thread-safe itself, the service it holds is.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "server/job_runner.h"
#include "server/map_service.h"
#include "server/request.h"
#include "src/platform/store/memory_record_store.h"

namespace omra::server::testing {

// The account digest the harness's own requests carry (32 lower-case hex digits).
inline constexpr const char* kHarnessAccount = "0123456789abcdef0123456789abcdef";

// The body of create_map / create_localization_session for that account and map name.
Json openingBody(const std::string& digest, const std::string& mapId);
// The same under the harness account, as text.
std::string openingBody(const std::string& mapName);

class RouteHarness {
 public:
  // A missing log drops the service's lines; a missing store is a fresh one. Aborts when the
  // tables cannot be created.
  explicit RouteHarness(MapServiceOptions options = {},
                        std::shared_ptr<MemoryRecordStore> store = nullptr);
  ~RouteHarness();
  RouteHarness(const RouteHarness&) = delete;
  RouteHarness& operator=(const RouteHarness&) = delete;

  // A request through MapService::handle; account: the header's value (none: no header).
  Answer call(const std::string& method, const std::string& path, std::string body,
              const std::optional<std::string>& account,
              std::map<std::string, std::string> query = {});
  // A POST of body to path ("/prod/maps/create_map") under the harness account.
  Answer post(const std::string& path, std::string body);
  // A GET of path with the query parameters given, under the harness account.
  Answer get(const std::string& path, std::map<std::string, std::string> query);

  // Opens a map named name under the harness account and returns its UUID (empty when that fails).
  std::string createMap(const std::string& name);

  MemoryRecordStore& store() { return *store_; }
  JobRunner& jobs() { return *jobs_; }

 private:
  std::shared_ptr<MemoryRecordStore> store_;
  std::unique_ptr<JobRunner> jobs_;
  std::unique_ptr<MapService> service_;
};

}  // namespace omra::server::testing
