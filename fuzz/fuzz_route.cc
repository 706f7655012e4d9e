// One server route's body (OMRA_FUZZ_ROUTE names the path) through MapService::handle, with the
// account header set, over a MemoryRecordStore. "@MAP@" and "@LOC@" in the input stand for a map
// and a localization session that exist, so that inputs reach past the lookups; located maps
// give the nearby listing cells to search. Every answer must
// encode, and a 200 to a placement must have stored only plausible positions.
#include <cstddef>
#include <cstdint>
#include <string>

#include "omrakit/map_asset.h"
#include "server/server_tables.h"
#include "src/foundation/json_reader.h"
#include "tests/server/map_service_testutil.h"

namespace {

using omra::server::testing::RouteHarness;

struct Fixture {
  RouteHarness harness;
  std::string map, session;
  Fixture() {
    map = harness.createMap("fuzz-room");
    const omra::server::Answer a = harness.post("/prod/maps/create_localization_session",
                                                omra::server::testing::openingBody("fuzz-room"));
    if (a.body.contains("session_uuid")) session = a.body["session_uuid"].get<std::string>();
    if (map.empty() || session.empty()) __builtin_trap();
    // Located maps around (lat 1, long 2), enough to crowd a cell of the nearby index.
    for (int i = 0; i < 48; ++i) {
      std::string body = omra::server::testing::openingBody("near-" + std::to_string(i));
      body.pop_back();
      body += ",\"long\":" + std::to_string(2 + (i % 7) * 0.001 - (i % 3) * 0.3) +
              ",\"lat\":" + std::to_string(1 + (i % 5) * 0.002) +
              ",\"alt\":0,\"horAccuracy\":5,\"verAccuracy\":3}";
      if (harness.post("/prod/maps/create_map", body).status != 200) __builtin_trap();
    }
  }
};

void replaceAll(std::string& s, const std::string& from, const std::string& to) {
  for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size())) {
    s.replace(at, from.size(), to);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture* fixture = new Fixture();
  std::string input(reinterpret_cast<const char*>(data), size);
  replaceAll(input, "@MAP@", fixture->map);
  replaceAll(input, "@LOC@", fixture->session);
  omra::server::Answer answer;
#ifdef OMRA_FUZZ_QUERY
  // "session_id\nlocalizer": the two query parameters of a GET.
  const size_t cut = input.find('\n');
  std::map<std::string, std::string> query;
  query["session_id"] = input.substr(0, cut);
  if (cut != std::string::npos) query["localizer"] = input.substr(cut + 1);
  answer = fixture->harness.get(OMRA_FUZZ_ROUTE, std::move(query));
#else
  answer = fixture->harness.post(OMRA_FUZZ_ROUTE, std::move(input));
#endif
  // The server writes every answer as JSON: it must encode without throwing.
  (void)answer.body.dump();
  if (answer.status < 200 || answer.status > 599) __builtin_trap();
  return 0;
}
