// The routes without HTTP and without GoogleTest (the route fuzzers link it): a MapService over a
// MemoryRecordStore with every table, one job worker,
// and requests that carry an account header. Shared by the route tests and the route fuzzer. One
// per test; not thread-safe.
#pragma once

#include <memory>
#include <string>

#include "server/job_runner.h"
#include "server/map_service.h"
#include "server/request.h"
#include "src/platform/store/memory_record_store.h"

namespace omra::server::testing {

// The account digest every harness request carries (32 lower-case hex digits).
inline constexpr const char* kHarnessAccount = "0123456789abcdef0123456789abcdef";

class RouteHarness {
 public:
  RouteHarness();
  ~RouteHarness();

  // A POST of body to path ("/prod/maps/create_map") with the account header.
  Answer post(const std::string& path, std::string body);
  // A GET of path with the query parameters given.
  Answer get(const std::string& path, std::map<std::string, std::string> query);

  // Opens a map named name and returns its UUID (empty, with a test failure, when that fails).
  std::string createMap(const std::string& name);

  MemoryRecordStore& store() { return *store_; }

 private:
  Request request(const std::string& method, const std::string& path);

  std::shared_ptr<MemoryRecordStore> store_;
  std::unique_ptr<JobRunner> jobs_;
  std::unique_ptr<MapService> service_;
};

// The opening body the kit sends, for map name, under the harness account.
std::string openingBody(const std::string& mapName);

}  // namespace omra::server::testing
