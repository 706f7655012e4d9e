#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <thread>
#include <vector>

#include "src/platform/console_logger.h"
#include "src/platform/memory_logger.h"

namespace omra {
namespace {

// Collects what reaches the process's log handler; restores the default when done.
struct HandlerCapture {
  explicit HandlerCapture(LogLevel minimum = LogLevel::kDebug) {
    setLogHandler(
        [this](LogLevel level, std::string_view message) {
          std::lock_guard lock(mutex);
          lines.emplace_back(level, std::string(message));
        },
        minimum);
  }
  ~HandlerCapture() { setLogHandler(nullptr); }
  size_t count(LogLevel level) {
    std::lock_guard lock(mutex);
    return std::count_if(lines.begin(), lines.end(),
                         [&](const auto& l) { return l.first == level; });
  }
  std::mutex mutex;
  std::vector<std::pair<LogLevel, std::string>> lines;
};

// Both loggers used from four threads at once: the console logger hands whole lines to the
// handler and never writes to standard output; the memory logger keeps prints and system logs
// apart.
TEST(LoggerTest, WholeLinesFromManyThreads) {
  ConsoleLogger console;
  MemoryLogger memory;
  HandlerCapture capture;
  ::testing::internal::CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        console.print("line " + std::to_string(t) + " 100%s");
        memory.print("p");
        memory.systemLog(LogLevel::kError, "s");
      }
    });
  }
  for (auto& th : threads) th.join();
  console.systemLog(LogLevel::kError, "to syslog 100%s");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(capture.count(LogLevel::kInfo), 100u);
  EXPECT_EQ(capture.count(LogLevel::kError), 1u);
  EXPECT_EQ(capture.lines.back().second, "to syslog 100%s");
  EXPECT_EQ(memory.lines().size(), 200u);
  EXPECT_EQ(memory.prints().size(), 100u);
  EXPECT_TRUE(memory.contains("s"));
  EXPECT_FALSE(memory.contains("absent"));
}

TEST(LoggerTest, HandlerLevelsAndTheDefault) {
  struct Case {
    LogLevel minimum;
    size_t debug, info, error;
  };
  const Case cases[] = {
      {LogLevel::kDebug, 1, 1, 1},
      {LogLevel::kInfo, 0, 1, 1},
      {LogLevel::kError, 0, 0, 1},
  };
  for (const Case& c : cases) {
    HandlerCapture capture(c.minimum);
    logLine(LogLevel::kDebug, "d");
    logLine(LogLevel::kInfo, "i");
    logLine(LogLevel::kError, "e");
    EXPECT_EQ(capture.count(LogLevel::kDebug), c.debug);
    EXPECT_EQ(capture.count(LogLevel::kInfo), c.info);
    EXPECT_EQ(capture.count(LogLevel::kError), c.error);
  }
  // Without a handler: errors on standard error, nothing else anywhere.
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  ConsoleLogger().print("quiet info");
  logLine(LogLevel::kError, "loud error");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "omrakit: loud error\n");
}

}  // namespace
}  // namespace omra
