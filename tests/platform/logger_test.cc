#include <gtest/gtest.h>

#include <thread>

#include "src/platform/console_logger.h"
#include "src/platform/memory_logger.h"

namespace omra {
namespace {

TEST(ConsoleLoggerTest, PrintWritesWholeLinesToStdout) {
  ConsoleLogger logger;
  ::testing::internal::CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&logger, t] {
      for (int i = 0; i < 25; ++i) logger.print("line " + std::to_string(t) + " 100%s");
    });
  }
  for (auto& th : threads) th.join();
  logger.systemLog(LogLevel::kError, "to syslog 100%s, not stdout");
  std::string out = ::testing::internal::GetCapturedStdout();
  size_t lines = 0, pos = 0;
  while ((pos = out.find('\n', pos)) != std::string::npos) {
    ++lines;
    ++pos;
  }
  EXPECT_EQ(lines, 100u);
  for (int t = 0; t < 4; ++t) {
    EXPECT_NE(out.find("line " + std::to_string(t) + " 100%s\n"), std::string::npos);
  }
  EXPECT_EQ(out.find("syslog"), std::string::npos);
}

TEST(MemoryLoggerTest, KeepsPrintsAndSystemLogsApart) {
  MemoryLogger logger;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&logger] {
      for (int i = 0; i < 50; ++i) {
        logger.print("p");
        logger.systemLog(LogLevel::kError, "s");
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(logger.lines().size(), 400u);
  EXPECT_EQ(logger.prints().size(), 200u);
  EXPECT_TRUE(logger.contains("s"));
  EXPECT_FALSE(logger.contains("absent"));
}

}  // namespace
}  // namespace omra
