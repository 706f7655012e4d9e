// The whole system on simulated scenes: the kit's sessions against omra-server in process, the
// relocalized assets compared with the simulator's truth.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "sim/recording_io.h"
#include "sim/scenario.h"
#include "src/platform/store/record_store_factory.h"
#include "tests/e2e/sanitized_testutil.h"
#include "tools/commands.h"
#include "tools/runner/html_report.h"
#include "tools/runner/scenario_run.h"
#include "tools/runner/session_driver.h"
#include "tools/runner/svg_report.h"

namespace omra::tools {
namespace {

// A loopback URL where nothing listens: a port the system just handed out and took back.
std::string deadBackEnd() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  int port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  if (fd >= 0) close(fd);
  return "http://127.0.0.1:" + std::to_string(port);
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

  const std::string svg = svgReport(report);
  for (const AssetOutcome& a : report.assets) EXPECT_NE(svg.find(a.id), std::string::npos);
  size_t paths = 0;
  for (size_t at = svg.find("<polyline"); at != std::string::npos;
       at = svg.find("<polyline", at + 1)) {
    ++paths;
  }
  EXPECT_EQ(paths, 2u);

  // The HTML report: a row per asset, and one per update on the timeline.
  const std::string html = htmlReport(report, 10, 5);
  auto count = [&](const std::string& what) {
    size_t n = 0;
    for (size_t at = html.find(what); at != std::string::npos; at = html.find(what, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count("<tr data-asset=\""), report.assets.size());
  const size_t timeline = html.find("<table id=\"timeline\">");
  ASSERT_NE(timeline, std::string::npos);
  const std::string updates = html.substr(timeline, html.find("</table>", timeline) - timeline);
  size_t rows = 0;
  for (size_t at = updates.find("<tr><td>"); at != std::string::npos;
       at = updates.find("<tr><td>", at + 1)) {
    ++rows;
  }
  EXPECT_EQ(rows, report.arrivals.size());
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
