// Scaffolding for the route tests over RouteHarness (map_service_testutil.h): two accounts, helpers
// that open maps and sessions and build record batches.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "tests/server/map_service_testutil.h"

namespace omra::server::testing {

// Two accounts: developer-key digests as the kit sends them.
extern const std::string kAccountA;
extern const std::string kAccountB;

// The JSON of a record batch of these items, in the ingest route's shape.
Json batchJson(const std::vector<TableItem>& items);

// One record of each of the five kit tables under session, record ids from firstRecordId on.
std::vector<TableItem> oneOfEachRecord(const std::string& session, int64_t firstRecordId);

// The route harness with test checks: helpers that fail the test on an unexpected answer and
// count what the store holds. Not thread-safe itself; the service it holds is.
class ServiceHarness : public RouteHarness {
 public:
  using RouteHarness::createMap;
  using RouteHarness::post;
  using RouteHarness::RouteHarness;

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
};

}  // namespace omra::server::testing
