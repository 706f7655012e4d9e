#include "tests/tools/report_testutil.h"

#include <regex>

#include "sim/scenario.h"

namespace omra::tools::testing {

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
  r.mapping.status = MapStatus::initialized;
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
  if (success) {
    ArrivalOutcome first{"full_image_matcher", 0.84, 1.5, r.assets, 3.0, 0.4, false};
    for (size_t i = 1; i < first.assets.size(); ++i) first.assets[i].placed.reset();
    r.arrivals = {first, {"su_localizer", std::nullopt, 4.5, r.assets, 3.0, 0.4, true}};
    r.firstAssetsScanSeconds = 1.5;
    r.firstLocalizer = "full_image_matcher";
    r.localizer = "su_localizer";
  }
  r.success = success;
  if (!success) r.failure = "no assets came back";
  return r;
}

std::string decodeReferences(const std::string& text) {
  static const std::pair<const char*, const char*> kReferences[] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&#39;", "'"}, {"&amp;", "&"}};
  std::string out = text;
  for (const auto& [from, to] : kReferences) {
    for (size_t at = out.find(from); at != std::string::npos; at = out.find(from, at + 1)) {
      out.replace(at, std::string(from).size(), to);
    }
  }
  return out;
}

std::vector<std::vector<std::string>> tableRows(const std::string& html, const std::string& id) {
  std::vector<std::vector<std::string>> rows;
  const size_t table = html.find("<table id=\"" + id + "\">");
  if (table == std::string::npos) return rows;
  const size_t body = html.find("<tbody>", table);
  const size_t end = html.find("</tbody>", table);
  if (body == std::string::npos || end == std::string::npos) return rows;
  const std::string inside = html.substr(body, end - body);
  const std::regex row(R"(<tr[^>]*>([\s\S]*?)</tr>)"), cell(R"(<td[^>]*>([^<]*)</td>)");
  for (auto r = std::sregex_iterator(inside.begin(), inside.end(), row);
       r != std::sregex_iterator(); ++r) {
    const std::string cells = (*r)[1];
    std::vector<std::string> texts;
    for (auto c = std::sregex_iterator(cells.begin(), cells.end(), cell);
         c != std::sregex_iterator(); ++c) {
      texts.push_back(decodeReferences((*c)[1]));
    }
    rows.push_back(std::move(texts));
  }
  return rows;
}

}  // namespace omra::tools::testing
