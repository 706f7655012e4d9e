// The HTML report as a browser renders it: a headless Chromium (when one is installed; the CI
// installs it) loads the file, and the page it builds holds the tables, the picture and no script,
// even for a run whose asset ids are markup.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "tests/common/temp_dir_testutil.h"
#include "tests/tools/report_testutil.h"
#include "tools/runner/html_report.h"

namespace omra::tools {
namespace {

std::optional<std::filesystem::path> browserOnPath() {
  const char* path = std::getenv("PATH");
  if (!path) return std::nullopt;
  for (const char* name : {"chromium", "chromium-browser", "google-chrome"}) {
    std::stringstream dirs(path);
    for (std::string dir; std::getline(dirs, dir, ':');) {
      const std::filesystem::path candidate = std::filesystem::path(dir) / name;
      if (!dir.empty() && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
  }
  return std::nullopt;
}

// Standard output of command (run by the shell), or none when it failed.
std::optional<std::string> output(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return std::nullopt;
  std::string out;
  std::array<char, 4096> buffer;
  for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
    out.append(buffer.data(), n);
  const int status = pclose(pipe);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return out;
}

class BrowserRender : public ::testing::Test {
 protected:
  void SetUp() override {
    browser_ = browserOnPath();
    if (!browser_) {
      GTEST_SKIP() << "no chromium, chromium-browser or google-chrome on PATH; "
                      "OMRA_WITH_BROWSER=1 scripts/install-deps.sh installs chromium";
    }
  }

  // The browser's command line for the page, with a profile of its own (runs may overlap).
  std::string command(const std::filesystem::path& page, const std::string& what) const {
    return "timeout 120 '" + browser_->string() +
           "' --headless --disable-gpu --no-sandbox --no-first-run --disable-dev-shm-usage "
           "--user-data-dir='" +
           (dir_ / "profile").string() + "' " + what + " 'file://" + page.string() +
           "' 2>/dev/null";
  }

  std::optional<std::filesystem::path> browser_;
  const omra::testing::ScopedTempDir tmp_{"omra-browser"};
  const std::filesystem::path& dir_ = tmp_.path();
};

TEST_F(BrowserRender, PageHoldsTheTablesAndThePictureAndNoScript) {
  ScenarioReport report = testing::handMadeReport(true, 40);
  report.assets[0].id = "<script>document.title='owned'</script>";
  const std::string html = htmlReport(report, 10, 5);
  const std::filesystem::path page = dir_ / "report.html";
  std::ofstream(page, std::ios::binary) << html;

  const std::optional<std::string> dom = output(command(page, "--dump-dom"));
  ASSERT_TRUE(dom.has_value()) << "the browser failed on " << page;
  // What the browser built from the file is what the file says.
  for (const char* table : {"assets", "timeline"}) {
    const auto rows = testing::tableRows(*dom, table);
    EXPECT_FALSE(rows.empty()) << table << "\n" << *dom;
    EXPECT_EQ(rows, testing::tableRows(html, table)) << table;
  }
  EXPECT_EQ(testing::tableRows(*dom, "assets")[0][0], report.assets[0].id);
  EXPECT_NE(dom->find("<svg"), std::string::npos);
  EXPECT_EQ(dom->find("<script"), std::string::npos);
  // Had the id run as a script, it would have renamed the page.
  EXPECT_NE(dom->find("<title>omra demo: scene 4</title>"), std::string::npos);
}

TEST_F(BrowserRender, PaintsAScreenshot) {
  const std::filesystem::path page = dir_ / "report.html";
  std::ofstream(page, std::ios::binary) << htmlReport(testing::handMadeReport(false, 10), 10, 5);
  const std::filesystem::path shot = dir_ / "report.png";
  ASSERT_TRUE(output(command(page, "--window-size=1200,1600 --screenshot='" + shot.string() + "'")))
      << "the browser failed on " << page;
  std::ifstream in(shot, std::ios::binary);
  std::string signature(8, '\0');
  in.read(signature.data(), 8);
  EXPECT_EQ(signature, "\x89PNG\r\n\x1a\n");
  // A blank page compresses to a few kilobytes; the picture and the tables take more.
  EXPECT_GT(std::filesystem::file_size(shot), 20000u);
}

}  // namespace
}  // namespace omra::tools
