// What the demo shows a newcomer, from a report built by hand over a short simulated scene: the
// picture's labels, scale, errors, fed frames and verdict, and the text's words and units.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <regex>
#include <string>
#include <vector>

#include "sim/scenario.h"
#include "tools/runner/demo_text.h"
#include "tools/runner/scenario_run.h"
#include "tools/runner/svg_report.h"

namespace omra::tools {
namespace {

// A finished run: every asset back 3 cm off when it succeeded, none back when it failed.
ScenarioReport handMadeReport(bool success, size_t localizationFramesFed) {
  static const sim::Scenario scenario = [] {
    sim::ScenarioOptions o;
    o.seed = 4;
    o.mappingSeconds = 2;
    o.localizationSeconds = 2;
    return sim::makeScenario(o);
  }();
  ScenarioReport r;
  r.scenario = scenario;
  r.mapping.framesFed = r.mapping.framesTotal = scenario.mapping->frameCount();
  r.localization.framesTotal = scenario.localization->frameCount();
  r.localization.framesFed = localizationFramesFed;
  const sim::YawTransform locFromRoom = scenario.localization->truth->sessionFromRoom;
  for (const AssetSpot& spot : assetSpots(*scenario.room)) {
    AssetOutcome a;
    a.id = spot.id;
    a.room = spot.position;
    a.expected = locFromRoom.apply(spot.position);
    if (success) {
      a.placed = a.expected + sim::Vec3{0.03, 0, 0};
      a.errorCm = 3.0;
      a.errorDegrees = 0.4;
    }
    r.assets.push_back(a);
  }
  r.success = success;
  if (!success) r.failure = "no assets came back";
  return r;
}

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

    // One label per asset and per object, none overlapping another.
    const std::vector<Box> boxes = labelBoxes(svg);
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

}  // namespace
}  // namespace omra::tools
