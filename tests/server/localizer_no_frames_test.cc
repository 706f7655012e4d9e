// A localizer run that reads nothing says so in the server's log, naming the localizer, the session
// and the map, instead of passing for a run that merely found no transform.
#include "server/localizer_jobs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "tests/server/service_testutil.h"

namespace omra::server {
namespace {

using testing::kAccountA;

// The service's log lines, from its job thread.
class LogLines {
 public:
  std::function<void(std::string_view)> sink() {
    return [this](std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    };
  }
  std::vector<std::string> warnings() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(out),
                 [](const std::string& l) { return l.rfind(kWarningPrefix, 0) == 0; });
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST(LocalizerJobs, WarnWhenARunReadsNoFrames) {
  struct Case {
    const char* name;
    const char* localizer;
    bool mapRecords, sessionRecords;
    const char* warning;  // how the line ends its "read no frames of ..."; nullptr: no warning
  };
  const Case cases[] = {
      {"session records never arrived", kImageMatcher, true, false, "the session;"},
      {"map recorded nothing", kImageMatcher, false, true, "the map;"},
      {"neither", kImageMatcher, false, false, "the session or of the map;"},
      {"both there", kImageMatcher, true, true, nullptr},
      {"objects: session records never arrived", kSuLocalizer, true, false, "the session;"},
      {"objects: map recorded nothing", kSuLocalizer, false, true, "the map;"},
      {"objects: both there", kSuLocalizer, true, true, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogLines log;
    MapServiceOptions options;
    options.log = log.sink();
    testing::ServiceHarness h(std::move(options));
    const std::string map = h.createMap(kAccountA, "hall");
    const std::string session = h.openSession(kAccountA, "hall");
    ASSERT_FALSE(map.empty() || session.empty());
    int64_t recordId = 1;
    for (const auto& [id, wanted] : {std::pair{map, c.mapRecords}, {session, c.sessionRecords}}) {
      if (!wanted) continue;
      const Answer a = h.post(kAccountA, "/prod/records/batch_write",
                              testing::batchJson(testing::oneOfEachRecord(id, recordId)));
      ASSERT_EQ(a.status, 200) << a.body.dump();
      recordId += 5;
    }
    const Answer a = c.localizer == std::string(kImageMatcher)
                         ? h.post(kAccountA, "/prod/full-image-matcher", Json{{"uuid", session}})
                         : h.post(kAccountA, "/prod/linear-optimizer/initial_transforms",
                                  Json{{"mapping_session_id", map},
                                       {"localization_session_id", session},
                                       {"is_seeded", false}});
    ASSERT_EQ(a.status, 200) << a.body.dump();
    h.jobs().waitIdle();

    const std::vector<std::string> warnings = log.warnings();
    if (!c.warning) {
      EXPECT_TRUE(warnings.empty()) << warnings.front();
      continue;
    }
    ASSERT_EQ(warnings.size(), 1u);
    const std::string& w = warnings.front();
    EXPECT_NE(w.find(c.localizer), std::string::npos) << w;
    EXPECT_NE(w.find("session " + session), std::string::npos) << w;
    EXPECT_NE(w.find("map " + map), std::string::npos) << w;
    EXPECT_NE(w.find(std::string("read no frames of ") + c.warning), std::string::npos) << w;
  }
}

}  // namespace
}  // namespace omra::server
