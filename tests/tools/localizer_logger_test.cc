// Which localizer answered, and with what match value, is read from the kit's own result lines.
#include "tools/runner/localizer_logger.h"

#include <gtest/gtest.h>

#include "tests/common/locale_testutil.h"

namespace omra::tools {
namespace {

TEST(LocalizerLogger, ReadsLocalizerAndMatchValueFromTheKitsResultLines) {
  struct Case {
    const char* line;
    const char* localizer;  // nullptr: not a result line
    std::optional<double> matchValue;
  } cases[] = {
      {"Received image matcher result full_image_matcher: 0.84", "full_image_matcher", 0.84},
      {"Received SU result su_localizer_seeded: 0.6", "su_localizer_seeded", 0.6},
      {"Received SU result su_localizer: 1e-3", "su_localizer", 0.001},
      {"Received SU result su_localizer: 0.6x", "su_localizer", std::nullopt},
      {"Received SU result su_localizer: ", "su_localizer", std::nullopt},
      {"Received SU result : 0.6", nullptr, std::nullopt},
      {"Relocalized asset new position (1, 2, 3) - dist: 3.7", nullptr, std::nullopt},
      {"Received SU result su_localizer", nullptr, std::nullopt},
  };
  // Whatever the host's locale, the kit writes a decimal point.
  const omra::testing::ScopedCommaLocale comma;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    std::optional<LocalizerResult> got = LocalizerLogger::resultOfLine(c.line);
    if (!c.localizer) {
      EXPECT_FALSE(got.has_value());
      continue;
    }
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->localizer, c.localizer);
    EXPECT_EQ(got->matchValue, c.matchValue);
  }
}

TEST(LocalizerLogger, KeepsTheNewestResultAndTheErrorsAndForwardsEveryLine) {
  std::vector<std::string> forwarded;
  LocalizerLogger logger([&](std::string_view line) { forwarded.emplace_back(line); });
  EXPECT_FALSE(logger.lastResult().has_value());
  logger.print("Received image matcher result full_image_matcher: 0.5");
  logger.print("Received SU result su_localizer: 0.7");
  logger.print("Relocalized asset new position (1, 2, 3) - dist: 3.7");
  logger.systemLog(LogLevel::kError, "could not store");
  logger.systemLog(LogLevel::kInfo, "opened");
  ASSERT_TRUE(logger.lastResult().has_value());
  EXPECT_EQ(logger.lastResult()->localizer, "su_localizer");
  EXPECT_EQ(logger.lastResult()->matchValue, 0.7);
  EXPECT_EQ(logger.errors(), std::vector<std::string>{"could not store"});
  EXPECT_EQ(forwarded.size(), 5u);
}

}  // namespace
}  // namespace omra::tools
