// The omra command as a newcomer meets it: help, version, defaults, and the README's record ->
// replay -> replay path. Runs the built binary.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/command_testutil.h"

namespace {

using omra::testing::CommandRun;
using omra::testing::omra;

TEST(OmraCommand, HelpVersionAndDefaults) {
  struct Case {
    const char* arguments;
    int exitCode;
    std::vector<const char*> mentions;
  };
  const Case cases[] = {
      {"", 2, {"Subcommands:", "demo", "replay", "omra demo"}},
      {"--version", 0, {"omra v0.3.6"}},
      {"replay --help", 0, {"--speed", "1000]=1\n", "--place", "600]=10\n", "omra-replay-map"}},
      {"demo --help", 0, {"--seed UINT=1", "--html", "report.html beside the picture"}},
      {"server --help", 0, {"65535]=8080"}},
      {"replay", 106, {"FILE is required"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    CommandRun run = omra(c.arguments);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
    for (const char* m : c.mentions)
      EXPECT_NE(run.output.find(m), std::string::npos) << m << "\n" << run.output;
  }
}

// record, replay the mapping with --place, replay the localization: the assets come back, each
// with its distance from where it belongs.
TEST(OmraCommand, RecordReplayReplayBringsAssetsBack) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("omra-readme-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  const std::string mapping = (dir / "mapping.jsonl").string();
  const std::string localization = (dir / "localization.jsonl").string();
  const std::string store = "sqlite:" + (dir / "omra.db").string();

  ASSERT_EQ(omra("record --seed 3 " + mapping).exitCode, 0);
  ASSERT_EQ(omra("record --seed 3 --session localization " + localization).exitCode, 0);
  // Faster than real time to keep the test short; still slow enough for the kit to record.
  const std::string outbox = " --outbox " + (dir / "outbox.db").string();
  CommandRun placed = omra("replay " + mapping + " --place --speed 4 --store " + store + outbox);
  ASSERT_EQ(placed.exitCode, 0) << placed.output;
  EXPECT_NE(placed.output.find("placements stored"), std::string::npos) << placed.output;
  CommandRun back =
      omra("replay " + localization + " --speed 4 --timeout 20 --store " + store + outbox);
  ASSERT_EQ(back.exitCode, 0) << back.output;
  EXPECT_NE(back.output.find("assets after"), std::string::npos) << back.output;
  EXPECT_NE(back.output.find("from where it belongs"), std::string::npos) << back.output;
  // The records reached the store the localizers read (the server's own warnings may tell of a
  // localizer asked before the first records arrived).
  EXPECT_EQ(back.output.find("omra replay: warning"), std::string::npos) << back.output;

  // --place needs a mapping recording with truth.
  CommandRun refused = omra("replay " + localization + " --place --store memory" + outbox);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.output.find("--place needs a mapping recording"), std::string::npos);
  std::filesystem::remove_all(dir);
}

// Two devices that share nothing but the server's URL: `omra server` and two replays as separate
// processes, with default settings. The records reach the server only through its ingest route.
TEST(OmraCommand, TwoDevicesShareOnlyTheServer) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("omra-devices-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir / "phone-a");
  std::filesystem::create_directories(dir / "phone-b");
  const std::string mapping = (dir / "mapping.jsonl").string();
  const std::string localization = (dir / "localization.jsonl").string();
  ASSERT_EQ(omra("record --seed 5 --seconds 16 " + mapping).exitCode, 0);
  ASSERT_EQ(omra("record --seed 5 --seconds 12 --session localization " + localization).exitCode,
            0);

  const std::string serverLog = (dir / "server.log").string();
  const std::string store = "sqlite:" + (dir / "server.db").string();
  const pid_t server =
      omra::testing::spawnOmra({"server", "--port", "0", "--store", store}, serverLog);
  ASSERT_GT(server, 0);
  // The server says where it listens.
  std::string url;
  for (int i = 0; i < 200 && url.empty(); ++i) {
    const std::string text = omra::testing::fileText(serverLog);
    const size_t at = text.find("listening on ");
    const size_t end = at == std::string::npos ? at : text.find('\n', at);
    if (end != std::string::npos) url = text.substr(at + 13, end - at - 13);
    if (url.empty()) usleep(50000);
  }
  ASSERT_FALSE(url.empty()) << "the server did not start";

  // Each phone keeps its own outbox (the default place under its own state folder).
  CommandRun placed = omra("replay " + mapping + " --place --server " + url,
                           "XDG_STATE_HOME=" + (dir / "phone-a").string());
  CommandRun back = omra("replay " + localization + " --server " + url,
                         "XDG_STATE_HOME=" + (dir / "phone-b").string());
  kill(server, SIGTERM);
  int status = 0;
  waitpid(server, &status, 0);

  ASSERT_EQ(placed.exitCode, 0) << placed.output;
  EXPECT_NE(placed.output.find("placements stored"), std::string::npos) << placed.output;
  ASSERT_EQ(back.exitCode, 0) << back.output;
  EXPECT_NE(back.output.find("assets after"), std::string::npos) << back.output;
  EXPECT_NE(back.output.find("from where it belongs"), std::string::npos) << back.output;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "server exit " << status;
  const std::string log = omra::testing::fileText(serverLog);
  EXPECT_NE(log.find("records/batch_write 200"), std::string::npos) << log;
  std::filesystem::remove_all(dir);
}

}  // namespace
