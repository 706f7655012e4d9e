// Scaffolding for the route tests: a MapService over an in-memory store, called directly with
// requests (no HTTP), with accounts and helpers that open maps and sessions and build record
// batches.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "server/job_runner.h"
#include "server/map_service.h"
#include "src/platform/store/memory_record_store.h"

namespace omra::server::testing {

// Two accounts: developer-key digests as the kit sends them.
extern const std::string kAccountA;
extern const std::string kAccountB;

// The body of create_map / create_localization_session for that account and map name.
Json openingBody(const std::string& digest, const std::string& mapId);

// The JSON of a record batch of these items, in the ingest route's shape.
Json batchJson(const std::vector<TableItem>& items);

// One record of each of the five kit tables under session, record ids from firstRecordId on.
std::vector<TableItem> oneOfEachRecord(const std::string& session, int64_t firstRecordId);

// Owns its store (tables created), job runner and service. Not thread-safe itself; the service
// it holds is.
class ServiceHarness {
 public:
  explicit ServiceHarness(MapServiceOptions options = {},
                          std::shared_ptr<MemoryRecordStore> store = nullptr);
  ~ServiceHarness();

  // A request through MapService::handle; account: the header's value (none: no header).
  Answer call(const std::string& method, const std::string& path, const std::string& body,
              const std::optional<std::string>& account,
              std::map<std::string, std::string> query = {});
  Answer post(const std::string& account, const std::string& path, const Json& body) {
    return call("POST", path, body.dump(), account);
  }

  // A new map of the account (its UUID); fails the test on any other answer.
  std::string createMap(const std::string& account, const std::string& mapId);
  // A localization session of the account on its newest map of that name.
  std::string openSession(const std::string& account, const std::string& mapId);

  // Items under session in the record tables (the five and "Transformations").
  size_t recordsOf(const std::string& session);
  // Items in every table of the store (record and server tables).
  size_t totalItems();

  MemoryRecordStore& store() { return *store_; }
  JobRunner& jobs() { return *jobs_; }

 private:
  std::shared_ptr<MemoryRecordStore> store_;
  std::unique_ptr<JobRunner> jobs_;
  std::unique_ptr<MapService> service_;
};

}  // namespace omra::server::testing
