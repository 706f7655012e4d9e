// A localization session in a room that is not the map's: the kit records it as usual, and no
// localizer may write a result for it against the other room's map, while the same session
// against its own room's map gets one.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "server/localizer_jobs.h"
#include "server/localizers/map_index_cache.h"
#include "server/map_store.h"
#include "src/platform/store/record_store_factory.h"
#include "tests/e2e/sanitized_testutil.h"
#include "tools/runner/scenario_run.h"

namespace omra::tools {
namespace {

TEST(WrongRoom, NoLocalizerAnswersForAnotherRoomsMap) {
  // Three rooms recorded into one store; each room's localization session is then tried against
  // the next room's map.
  std::shared_ptr<RecordStore> store = makeRecordStore("memory", {}, nullptr);
  // OMRA_WRONG_ROOM_SEEDS="1,2,3,..." sweeps more rooms by hand.
  std::vector<uint64_t> seeds = {2101, 2102, 2103};
  if (const char* list = std::getenv("OMRA_WRONG_ROOM_SEEDS")) {
    seeds.clear();
    for (const char* p = list; *p;) {
      char* end = nullptr;
      seeds.push_back(std::strtoull(p, &end, 10));
      if (end == p) break;
      p = *end ? end + 1 : end;
    }
  }
  std::vector<ScenarioReport> rooms;
  for (uint64_t seed : seeds) {
    ScenarioRunOptions o;
    o.store = store;
    o.scenario.seed = seed;
    o.scenario.mappingSeconds = 14;
    o.scenario.localizationSeconds = 10;
    o.mappingSpeed = kSanitized ? 1 : 4;
    o.localizationSpeed = kSanitized ? 1 : 3;
    o.settleScanSeconds = 100;  // the whole session, so that it saw all it could
    o.waitAfterFeedSeconds = kSanitized ? 10 : 3;
    rooms.push_back(runScenario(o));
    ASSERT_TRUE(rooms.back().mapping.mapUUID && rooms.back().localization.sessionUUID)
        << rooms.back().failure;
  }
  server::MapStore maps(*store);
  server::LocalizerOptions options;
  options.cache = std::make_shared<server::MapIndexCache>();
  options.sessions = std::make_shared<server::SessionSceneCache>();
  for (size_t i = 0; i < rooms.size(); ++i) {
    const std::string& session = *rooms[(i + 1) % rooms.size()].localization.sessionUUID;
    const std::string& ownMap = *rooms[(i + 1) % rooms.size()].mapping.mapUUID;
    const std::string& otherMap = *rooms[i].mapping.mapUUID;
    SCOPED_TRACE("session of room " + std::to_string(seeds[(i + 1) % rooms.size()]) +
                 " against the map of room " + std::to_string(seeds[i]));
    // The seeded run starts from the session's image-matcher answer for its own map: a
    // hypothesis from another room, which must not pass either.
    for (const char* localizer :
         {server::kImageMatcher, server::kSuLocalizer, server::kSuLocalizerSeeded}) {
      const server::JobOutcome out = runLocalizer(maps, localizer, otherMap, session, options);
      EXPECT_FALSE(out.error);
      EXPECT_FALSE(out.wrote) << localizer << ": " << out.summary;
    }
    const server::JobOutcome own =
        runLocalizer(maps, server::kSuLocalizer, ownMap, session, options);
    EXPECT_TRUE(own.wrote) << own.summary;
  }
}

}  // namespace
}  // namespace omra::tools
