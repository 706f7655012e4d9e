#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "src/platform/console_logger.h"
#include "src/platform/memory_logger.h"

namespace omra {
namespace {

// Both loggers used from four threads at once: the console keeps whole lines on stdout and sends
// system logs elsewhere; the memory logger keeps prints and system logs apart.
TEST(LoggerTest, WholeLinesFromManyThreads) {
  ConsoleLogger console;
  MemoryLogger memory;
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
  console.systemLog(LogLevel::kError, "to syslog 100%s, not stdout");
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 100);
  for (int t = 0; t < 4; ++t) {
    EXPECT_NE(out.find("line " + std::to_string(t) + " 100%s\n"), std::string::npos);
  }
  EXPECT_EQ(out.find("syslog"), std::string::npos);
  EXPECT_EQ(memory.lines().size(), 200u);
  EXPECT_EQ(memory.prints().size(), 100u);
  EXPECT_TRUE(memory.contains("s"));
  EXPECT_FALSE(memory.contains("absent"));
}

}  // namespace
}  // namespace omra
