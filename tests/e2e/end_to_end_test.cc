// The whole system on simulated scenes: the kit's sessions against omra-server in process, the
// relocalized assets compared with the simulator's truth.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "sim/recording_io.h"
#include "sim/scenario.h"
#include "src/platform/store/record_store_factory.h"
#include "tests/e2e/sanitized_testutil.h"
#include "tests/platform/loopback_server_testutil.h"
#include "tools/commands.h"
#include "tools/runner/scenario_run.h"
#include "tools/runner/session_driver.h"

namespace omra::tools {
namespace {

// A loopback URL where nothing listens.
std::string deadBackEnd() {
  return "http://127.0.0.1:" + std::to_string(omra::testing::unusedLoopbackPort());
}

// A short scene; under sanitizers everything runs several times slower, so the sessions are fed at
// their own pace there and the kit drops the frames it cannot keep up with, as on a slow phone.
ScenarioRunOptions shortRun(uint64_t seed) {
  ScenarioRunOptions o;
  o.scenario.seed = seed;
  o.scenario.mappingSeconds = 14;
  o.scenario.localizationSeconds = 10;
  o.mappingSpeed = kSanitized ? 1 : 3;
  o.localizationSpeed = kSanitized ? 1 : 2;
  o.settleScanSeconds = 5;
  o.waitAfterFeedSeconds = kSanitized ? 20 : 8;
  return o;
}

TEST(EndToEnd, AssetsComeBackWhereTheyWerePlaced) {
  ScenarioReport report = runScenario(shortRun(3));
  ASSERT_TRUE(report.mapping.opened());
  ASSERT_TRUE(report.localization.opened());
  ASSERT_FALSE(report.arrivals.empty()) << report.failure;
  ASSERT_EQ(report.assets.size(), 3u);
  for (const AssetOutcome& a : report.assets) {
    ASSERT_TRUE(a.placed.has_value()) << a.id;
    EXPECT_LT(a.errorCm, 10.0) << a.id << " via " << report.localizer;
    EXPECT_LT(a.errorDegrees, 3.0) << a.id << " via " << report.localizer;
  }
  EXPECT_TRUE(report.success) << report.failure;
  const std::set<std::string> localizers{"full_image_matcher", "su_localizer",
                                         "su_localizer_seeded"};
  EXPECT_TRUE(localizers.count(report.localizer)) << report.localizer;
  ASSERT_TRUE(report.firstAssetsScanSeconds.has_value());
  EXPECT_LE(*report.firstAssetsScanSeconds, report.localization.scanSeconds);
  // The sessions disagree by a real transform, so a kit that ignored it would fail above.
  const sim::YawTransform truth = report.scenario.localizationFromMapping();
  EXPECT_GT(std::hypot(truth.tx, truth.tz) + std::fabs(truth.theta), 0.1);
}

// A back end that is not there: the session reports the network error, promptly.
TEST(EndToEnd, MissingBackEndGivesNetworkErrorWithoutHanging) {
  sim::ScenarioOptions scene;
  scene.seed = 5;
  scene.localizationSeconds = 1;
  scene.mappingSeconds = 1;
  sim::Scenario s = sim::makeScenario(scene);
  KitServices services = makeKitServices(makeRecordStore("memory", {}, nullptr), deadBackEnd(), 3);
  DriveOptions drive;
  drive.speed = 0;
  drive.openTimeoutSeconds = 8;
  const auto start = std::chrono::steady_clock::now();
  DriveResult r = driveSession(services, s.mapping, drive);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ASSERT_TRUE(r.status.has_value());
  EXPECT_EQ(*r.status, MapStatus::networkError);
  EXPECT_EQ(r.framesFed, 0u);
  EXPECT_LT(seconds, 8.0);
}

// `omra replay` refuses damaged recordings before it talks to any back end, naming the line.
TEST(EndToEnd, ReplayStopsAtDamagedRecordings) {
  sim::ScenarioOptions scene;
  scene.seed = 6;
  scene.mappingSeconds = 0.5;
  sim::Scenario s = sim::makeScenario(scene);
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() /
      ("omra-e2e-replay-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
       "-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
  std::filesystem::create_directories(dir);
  const std::string good = (dir / "good.jsonl").string();
  ASSERT_EQ(sim::writeRecordingFile(*s.mapping, good), "");
  std::ifstream in(good);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_GT(lines.size(), 4u);

  auto write = [&](const std::string& name, const std::vector<std::string>& content) {
    const std::string path = (dir / name).string();
    std::ofstream out(path);
    for (const std::string& l : content) out << l << '\n';
    return path;
  };
  std::vector<std::string> truncated(lines.begin(), lines.end() - 2);
  std::vector<std::string> corrupt = lines;
  corrupt[3] = corrupt[3].substr(0, corrupt[3].size() / 2);
  std::vector<std::string> newer = lines;
  const std::string version = "\"version\":1";
  ASSERT_NE(newer[0].find(version), std::string::npos) << newer[0];
  newer[0].replace(newer[0].find(version), version.size(), "\"version\":99");

  struct Case {
    std::string name;
    std::vector<std::string> content;
    std::string line;
  };
  const Case cases[] = {{"truncated", truncated, "line "},
                        {"corrupt", corrupt, "line 4"},
                        {"newer", newer, "line 1"}};
  for (const Case& c : cases) {
    ReplayOptions replay;
    replay.path = write(c.name + ".jsonl", c.content);
    // Nothing listens here: had the replay started, the error would be a network one.
    replay.server = deadBackEnd();
    replay.timeoutSeconds = 2;
    ::testing::internal::CaptureStderr();
    const int code = runReplay(replay);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(code, 1) << c.name;
    EXPECT_NE(err.find(c.line), std::string::npos) << c.name << ": " << err;
    EXPECT_EQ(err.find("network"), std::string::npos) << c.name << ": " << err;
  }
  std::filesystem::remove_all(dir);
}

TEST(EndToEnd, HeadingErrorsWrapAroundTheCircle) {
  const double pi = 3.14159265358979323846;
  struct Case {
    double a, b, degrees;
  } cases[] = {
      {0.1, 0.0, 5.7296}, {-pi + 0.01, pi - 0.01, 1.1459}, {3 * pi, 0, 180}, {0, 2 * pi, 0}};
  for (const Case& c : cases) {
    EXPECT_NEAR(headingErrorDegrees(c.a, c.b), c.degrees, 1e-3) << c.a << " " << c.b;
  }
}

}  // namespace
}  // namespace omra::tools
