// A fresh directory for one test's files, removed with everything in it when the object goes.
// Header-only so that every test binary can use it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>

namespace omra::testing {

class ScopedTempDir {
 public:
  // Named for the process, a serial and the running test: parallel runs and the tests of one run
  // never share one.
  explicit ScopedTempDir(const std::string& prefix = "omra") {
    static std::atomic<int> serial{0};
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string test = info != nullptr ? info->name() : "bench";
    for (char& c : test) {
      if (c == '/') c = '_';
    }
    path_ = std::filesystem::temp_directory_path() / (prefix + "-" + std::to_string(::getpid()) +
                                                      "-" + std::to_string(serial++) + "-" + test);
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~ScopedTempDir() {
    std::error_code ignored;
    // A test may have taken write access away.
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // A path inside the directory.
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace omra::testing
