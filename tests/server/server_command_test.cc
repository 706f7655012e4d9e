#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "server/server.h"

namespace omra::server {
namespace {

// The command serves until SIGTERM reaches it, then stops cleanly and returns 0.
TEST(ServerCommand, RunsUntilSigtermThenStops) {
  std::promise<void> listening;
  std::atomic<bool> stopped{false};
  ServerOptions o;
  o.storeSpec = "memory";
  o.log = [&](std::string_view line) {
    if (line.starts_with("listening on ")) listening.set_value();
    if (line.starts_with("stopped")) stopped = true;
  };
  std::promise<int> exitCode;
  std::thread command([&] { exitCode.set_value(runServerCommand(o)); });
  ASSERT_EQ(listening.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  // The command thread blocks SIGTERM before it logs, so the signal waits for its sigwait.
  pthread_kill(command.native_handle(), SIGTERM);
  auto code = exitCode.get_future();
  ASSERT_EQ(code.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(code.get(), 0);
  EXPECT_TRUE(stopped);
  command.join();
}

TEST(ServerCommand, RefusesAStoreItCannotOpen) {
  ServerOptions o;
  o.storeSpec = "nonsense:store";
  o.log = [](std::string_view) {};
  EXPECT_EQ(runServerCommand(o), 1);
  EXPECT_EQ(createTablesCommand("nonsense:store"), 1);
}

}  // namespace
}  // namespace omra::server
