// What the demo shows a newcomer, from a report built by hand over a short simulated scene: the
// picture's labels, scale, errors, fed frames and verdict, the HTML report's tables, and the text's
// words and units.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <numbers>
#include <regex>
#include <string>
#include <vector>

#include "tests/common/temp_dir_testutil.h"
#include "tests/tools/report_testutil.h"
#include "tools/runner/demo_text.h"
#include "tools/runner/html_report.h"
#include "tools/runner/scenario_run.h"
#include "tools/runner/svg_report.h"

namespace omra::tools {
namespace {

using testing::handMadeReport;

struct Box {
  double x0, y0, x1, y1;
};

std::vector<Box> labelBoxes(const std::string& svg) {
  std::vector<Box> boxes;
  const std::regex box(R"re(data-box="([-0-9.]+),([-0-9.]+),([-0-9.]+),([-0-9.]+)")re");
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), box); it != std::sregex_iterator();
       ++it) {
    boxes.push_back(
        {std::stod((*it)[1]), std::stod((*it)[2]), std::stod((*it)[3]), std::stod((*it)[4])});
  }
  return boxes;
}

size_t polylinePoints(const std::string& svg, size_t which) {
  size_t at = 0;
  for (size_t i = 0; i <= which; ++i) at = svg.find("<polyline", at + (i ? 1 : 0));
  const size_t start = svg.find("points=\"", at) + 8;
  const std::string points = svg.substr(start, svg.find('"', start) - start);
  return static_cast<size_t>(std::count(points.begin(), points.end(), ','));
}

TEST(SvgReport, PictureShowsWhatHappened) {
  struct Case {
    const char* name;
    bool success;
    double fedShare;  // of the localization frames
    std::vector<std::string> shows;
    std::vector<std::string> hides;
  };
  const Case cases[] = {
      {"pass", true, 1.0, {"1 m</text>", ": 3.0 cm, 0.4 deg"}, {"FAIL"}},
      {"fail",
       false,
       0.35,
       {"FAIL: no assets came back", ": not returned", "1 m</text>"},
       {"cm, "}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t total = handMadeReport(true, 0).localization.framesTotal;
    const size_t fed = static_cast<size_t>(c.fedShare * static_cast<double>(total));
    const ScenarioReport report = handMadeReport(c.success, fed);
    const std::string svg = svgReport(report);
    for (const std::string& s : c.shows) EXPECT_NE(svg.find(s), std::string::npos) << s;
    for (const std::string& s : c.hides) EXPECT_EQ(svg.find(s), std::string::npos) << s;
    // A red cross per returned asset, plus the legend's.
    size_t crosses = 0;
    for (size_t at = svg.find("<path d=\"M"); at != std::string::npos;
         at = svg.find("<path d=\"M", at + 1)) {
      ++crosses;
    }
    EXPECT_EQ(crosses, (c.success ? report.assets.size() : 0) + 1);

    // Only the frames fed are drawn (one point in six frames).
    EXPECT_NEAR(static_cast<double>(polylinePoints(svg, 1)), std::ceil(fed / 6.0), 1.0);
    EXPECT_NE(svg.find(std::to_string(fed) + " of " + std::to_string(total)), std::string::npos);

    // One label per asset and per object, none overlapping another or leaving the picture.
    const std::vector<Box> boxes = labelBoxes(svg);
    const std::regex size(R"re(<svg [^>]*width="([0-9.]+)" height="([0-9.]+)")re");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(svg, m, size));
    for (const Box& b : boxes) {
      EXPECT_TRUE(b.x0 >= 0 && b.y0 >= 0 && b.x1 <= std::stod(m[1]) && b.y1 <= std::stod(m[2]))
          << b.x0 << "," << b.y0 << "," << b.x1 << "," << b.y1;
    }
    EXPECT_EQ(boxes.size(), report.assets.size() + report.scenario.room->objects.size());
    for (size_t i = 0; i < boxes.size(); ++i) {
      for (size_t j = i + 1; j < boxes.size(); ++j) {
        const bool overlap = boxes[i].x0 < boxes[j].x1 && boxes[j].x0 < boxes[i].x1 &&
                             boxes[i].y0 < boxes[j].y1 && boxes[j].y0 < boxes[i].y1;
        EXPECT_FALSE(overlap) << "labels " << i << " and " << j;
      }
    }
  }
}

double number(const std::string& text) { return std::stod(text); }

TEST(HtmlReport, TablesMatchTheRun) {
  for (const bool success : {true, false}) {
    SCOPED_TRACE(success ? "pass" : "fail");
    const ScenarioReport report = handMadeReport(success, 40);
    const std::string html = htmlReport(report, 10, 5);
    EXPECT_EQ(html.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_NE(html.find(std::string("<p id=\"verdict\" class=\"") + (success ? "pass" : "fail") +
                        "\">" + verdictLine(report, 10, 5) + "</p>"),
              std::string::npos);

    const auto assets = testing::tableRows(html, "assets");
    ASSERT_EQ(assets.size(), report.assets.size());
    for (size_t i = 0; i < assets.size(); ++i) {
      const AssetOutcome& a = report.assets[i];
      const std::vector<std::string>& row = assets[i];
      SCOPED_TRACE(a.id);
      ASSERT_EQ(row.size(), success ? 10u : 5u);
      EXPECT_EQ(row[0], a.id);
      EXPECT_NEAR(number(row[1]), a.expected.x, 5e-4);
      EXPECT_NEAR(number(row[2]), a.expected.y, 5e-4);
      EXPECT_NEAR(number(row[3]), a.expected.z, 5e-4);
      if (!success) {
        EXPECT_EQ(row[4], "not returned");
        continue;
      }
      EXPECT_NEAR(number(row[4]), a.placed->x, 5e-4);
      EXPECT_NEAR(number(row[5]), a.placed->y, 5e-4);
      EXPECT_NEAR(number(row[6]), a.placed->z, 5e-4);
      EXPECT_EQ(row[7], "3.0");
      EXPECT_EQ(row[8], "0.40");
      EXPECT_EQ(row[9], report.localizer);
    }

    const auto timeline = testing::tableRows(html, "timeline");
    if (!success) {
      EXPECT_TRUE(timeline.empty());
      EXPECT_NE(html.find("handed back no assets"), std::string::npos);
      continue;
    }
    const std::vector<std::vector<std::string>> expected = {
        {"1.5", "full_image_matcher", "0.840", "1 of 3", "3.0", "0.40"},
        {"4.5", "su_localizer", "-", "3 of 3", "3.0", "0.40"}};
    EXPECT_EQ(timeline, expected);
  }
}

TEST(HtmlReport, IsOneFileThatLoadsAndRunsNothing) {
  const std::string html = htmlReport(handMadeReport(true, 40), 10, 5);
  // The picture is inlined, once.
  size_t pictures = 0;
  for (size_t at = html.find("<svg "); at != std::string::npos; at = html.find("<svg ", at + 1)) {
    ++pictures;
  }
  EXPECT_EQ(pictures, 1u);
  EXPECT_NE(html.find("</svg>"), std::string::npos);
  EXPECT_NE(html.find("Content-Security-Policy\" content=\"default-src 'none'"), std::string::npos);
  for (const char* outside : {"<script", "src=", "href=", "<link", "@import", "url("}) {
    EXPECT_EQ(html.find(outside), std::string::npos) << outside;
  }
}

TEST(HtmlReport, EscapesEveryTextFromData) {
  ScenarioReport report = handMadeReport(true, 40);
  const std::string hostile = "<script>alert(\"x\")</script>&'";
  report.assets[0].id = hostile;
  report.assets[1].id = "lamp-\xff-\xc3";  // not UTF-8
  report.localizer = "<b>su</b>";
  report.failure = "<img src=x onerror=alert(1)>";
  report.success = false;
  report.serverWarnings = {
      "warning: full_image_matcher for session <i>S</i> on map M read no "
      "frames of the session; without them it finds no transform"};
  report.localization.kitErrors = {"<svg onload=alert(2)>"};
  const std::string html = htmlReport(report, 10, 5);

  for (const char* raw : {"<script", "<img", "<b>", "<i>", "<svg onload", "\xff"}) {
    EXPECT_EQ(html.find(raw), std::string::npos) << raw;
  }
  const auto assets = testing::tableRows(html, "assets");
  ASSERT_EQ(assets.size(), 3u);
  EXPECT_EQ(assets[0][0], hostile);
  EXPECT_EQ(assets[1][0], "lamp-\xef\xbf\xbd-\xef\xbf\xbd");
  EXPECT_EQ(assets[0][9], "<b>su</b>");
  EXPECT_NE(html.find("data-asset=\"&lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt;&amp;&#39;\""),
            std::string::npos);
  // The warning says a later run of that localizer answered; the kit's error is listed too.
  EXPECT_NE(
      html.find("<li>omra-server: warning: full_image_matcher for session &lt;i&gt;S&lt;/i&gt;"),
      std::string::npos);
  EXPECT_NE(html.find("a later full_image_matcher run found a transform"), std::string::npos);
  EXPECT_NE(html.find("<li>kit (localization): &lt;svg onload=alert(2)&gt;</li>"),
            std::string::npos);
}

TEST(HtmlReport, WritesTheFileOrSaysWhyNot) {
  const omra::testing::ScopedTempDir dir("omra-report");
  const std::string path = dir.file("report.html");
  const ScenarioReport report = handMadeReport(true, 40);
  ASSERT_EQ(writeHtmlReport(report, 10, 5, path), "");
  std::ifstream in(path, std::ios::binary);
  const std::string written((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(written, htmlReport(report, 10, 5));
  EXPECT_NE(writeHtmlReport(report, 10, 5, "/nonexistent-folder/report.html").find("cannot open"),
            std::string::npos);
}

TEST(DemoText, MetresDegreesAndVerdict) {
  struct Case {
    sim::YawTransform transform;
    const char* words;
  };
  const Case cases[] = {
      {{1.2, 0, -0.454, std::numbers::pi / 2},
       "shifted (1.20, 0.00, -0.45) m and turned 90.0 degrees about the vertical"},
      {{0, 0, 0, -std::numbers::pi}, "shifted (0.00, 0.00, 0.00) m and turned 180.0 degrees"},
      {{0, 0.1, 0, 2 * std::numbers::pi + 0.1},
       "shifted (0.00, 0.10, 0.00) m and turned 5.7 degrees"},
  };
  for (const Case& c : cases) {
    EXPECT_NE(transformInWords(c.transform).find(c.words), std::string::npos)
        << transformInWords(c.transform);
  }
  EXPECT_EQ(verdictLine(handMadeReport(true, 1), 10, 5),
            "PASS: all 3 assets came back within 10 cm and 5 degrees");
  EXPECT_EQ(verdictLine(handMadeReport(false, 1), 10, 5), "FAIL: no assets came back");
  EXPECT_NE(scanProgressNote().find("walls"), std::string::npos);
}

TEST(DemoText, ServerWarningsSayWhenTheLocalizerAnsweredLater) {
  const std::string warning =
      "warning: su_localizer for session S on map M read no frames of the session; without them "
      "it finds no transform";
  struct Case {
    std::string warning;
    std::vector<std::string> answered;
    bool laterNote;
  };
  const Case cases[] = {
      {warning, {}, false},
      {warning, {"full_image_matcher"}, false},
      {warning, {"full_image_matcher", "su_localizer"}, true},
      // su_localizer_seeded is another localizer, not a later su_localizer run.
      {warning, {"su_localizer_seeded"}, false},
      {"listening on http://127.0.0.1:1", {"listening"}, false},
  };
  for (const Case& c : cases) {
    const std::string words = serverWarningInWords(c.warning, c.answered);
    EXPECT_EQ(words.rfind("omra-server: " + c.warning, 0), 0u) << words;
    EXPECT_EQ(words.find("a later su_localizer run found a transform") != std::string::npos,
              c.laterNote)
        << words;
  }
}

}  // namespace
}  // namespace omra::tools
