// Runs a test under a comma-decimal C locale, as GTK and Qt hosts set it, and puts the previous
// locale back afterwards. Header-only so that every test binary can use it. Not thread-safe (the C
// locale is process-wide): use it only in tests that start no threads of their own.
#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <string>

namespace omra::testing {

inline constexpr const char* kCommaDecimalLocale = "de_DE.UTF-8";

class ScopedCommaLocale {
 public:
  ScopedCommaLocale() {
    const char* previous = std::setlocale(LC_ALL, nullptr);
    previous_ = previous ? previous : "C";
    active_ = std::setlocale(LC_ALL, kCommaDecimalLocale) != nullptr;
  }
  ~ScopedCommaLocale() { std::setlocale(LC_ALL, previous_.c_str()); }
  ScopedCommaLocale(const ScopedCommaLocale&) = delete;
  ScopedCommaLocale& operator=(const ScopedCommaLocale&) = delete;

  // False when the locale is not installed (scripts/install-deps.sh generates it).
  bool active() const { return active_; }

 private:
  std::string previous_;
  bool active_ = false;
};

}  // namespace omra::testing

// Declares `locale` and skips the test, saying why, when the comma-decimal locale is missing.
#define OMRA_UNDER_COMMA_LOCALE(locale)                  \
  ::omra::testing::ScopedCommaLocale locale;             \
  if (locale.active()) {                                 \
  } else                                                 \
    GTEST_SKIP() << ::omra::testing::kCommaDecimalLocale \
                 << " is not installed: run scripts/install-deps.sh (locales + locale-gen)"
