#include "tools/runner/html_report.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tools/runner/demo_text.h"
#include "tools/runner/markup.h"
#include "tools/runner/svg_report.h"

namespace omra::tools {
namespace {

constexpr const char* kStyle =
    "body{font-family:sans-serif;margin:2em;color:#222;max-width:72em}"
    "table{border-collapse:collapse;margin:0.5em 0 1.5em}"
    "th,td{border:1px solid #ccc;padding:3px 8px;text-align:right}"
    "th.text,td.text{text-align:left;white-space:nowrap}thead th{background:#f2f0ea}"
    ".pass{color:#2f855a}.fail{color:#c53030}tr.missing td{color:#c53030}"
    "figure{margin:1em 0}figure svg{max-width:100%;height:auto}";

std::string cell(const std::string& text, bool isText = false) {
  return std::string(isText ? "<td class=\"text\">" : "<td>") + escapeMarkup(text) + "</td>";
}

std::string header(const std::string& text, bool isText = false) {
  return std::string(isText ? "<th class=\"text\">" : "<th>") + escapeMarkup(text) + "</th>";
}

void assetTable(std::ostringstream& out, const ScenarioReport& report) {
  out << "<table id=\"assets\">\n<thead><tr>" << header("asset", true);
  for (const char* axis : {"x", "y", "z"}) out << header(std::string("expected ") + axis + " (m)");
  for (const char* axis : {"x", "y", "z"}) out << header(std::string("received ") + axis + " (m)");
  out << header("error (cm)") << header("error (degrees)") << header("localizer", true)
      << "</tr></thead>\n<tbody>\n";
  for (const AssetOutcome& a : report.assets) {
    out << "<tr" << (a.placed ? "" : " class=\"missing\"") << " data-asset=\"" << escapeMarkup(a.id)
        << "\">" << cell(a.id, true);
    for (double v : {a.expected.x, a.expected.y, a.expected.z}) out << cell(fixed(v, 3));
    if (a.placed) {
      for (double v : {a.placed->x, a.placed->y, a.placed->z}) out << cell(fixed(v, 3));
      out << cell(fixed(a.errorCm, 1)) << cell(fixed(a.errorDegrees, 2))
          << cell(report.localizer, true);
    } else {
      out << "<td class=\"text\" colspan=\"6\">not returned</td>";
    }
    out << "</tr>\n";
  }
  out << "</tbody>\n</table>\n";
}

void timelineTable(std::ostringstream& out, const ScenarioReport& report) {
  if (report.arrivals.empty()) {
    out << "<p id=\"timeline\">The kit handed back no assets.</p>\n";
    return;
  }
  out << "<table id=\"timeline\">\n<thead><tr>" << header("scan time (s)")
      << header("localizer", true) << header("match value") << header("assets back")
      << header("worst error (cm)") << header("worst error (degrees)")
      << "</tr></thead>\n<tbody>\n";
  for (const ArrivalOutcome& a : report.arrivals) {
    const auto back = std::count_if(a.assets.begin(), a.assets.end(),
                                    [](const AssetOutcome& o) { return o.placed.has_value(); });
    out << "<tr>" << cell(fixed(a.scanSeconds, 1))
        << cell(a.localizer.empty() ? "unknown" : a.localizer, true)
        << cell(a.matchValue ? fixed(*a.matchValue, 3) : "-")
        << cell(std::to_string(back) + " of " + std::to_string(a.assets.size()))
        << cell(fixed(a.maxErrorCm, 1)) << cell(fixed(a.maxErrorDegrees, 2)) << "</tr>\n";
  }
  out << "</tbody>\n</table>\n";
}

void warningList(std::ostringstream& out, const ScenarioReport& report) {
  std::vector<std::string> answered, lines;
  for (const ArrivalOutcome& a : report.arrivals) answered.push_back(a.localizer);
  for (const std::string& w : report.serverWarnings) {
    lines.push_back(serverWarningInWords(w, answered));
  }
  for (const std::string& e : report.mapping.kitErrors) lines.push_back("kit (mapping): " + e);
  for (const std::string& e : report.localization.kitErrors) {
    lines.push_back("kit (localization): " + e);
  }
  if (lines.empty()) return;
  out << "<h2>Warnings</h2>\n<ul id=\"warnings\">\n";
  for (const std::string& line : lines) out << "<li>" << escapeMarkup(line) << "</li>\n";
  out << "</ul>\n";
}

}  // namespace

std::string htmlReport(const ScenarioReport& report, double toleranceCm, double toleranceDegrees) {
  const sim::Room& room = *report.scenario.room;
  const std::string title = "omra demo: scene " + std::to_string(report.scenario.seed);
  std::ostringstream out;
  out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      << "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
         "style-src 'unsafe-inline'\">\n"
      << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      << "<title>" << escapeMarkup(title) << "</title>\n<style>" << kStyle
      << "</style>\n</head>\n<body>\n<h1>" << escapeMarkup(title) << "</h1>\n";
  out << "<p id=\"verdict\" class=\"" << (report.success ? "pass" : "fail") << "\">"
      << escapeMarkup(verdictLine(report, toleranceCm, toleranceDegrees)) << "</p>\n";
  out << "<p>Room " << fixed(room.width, 1) << " m x " << fixed(room.depth, 1) << " m with "
      << room.objects.size() << " objects; mapping " << report.mapping.framesFed << " frames ("
      << fixed(report.mapping.scanSeconds, 1) << " s), localization "
      << report.localization.framesFed << " of " << report.localization.framesTotal << " frames ("
      << fixed(report.localization.scanSeconds, 1) << " s).";
  if (report.firstAssetsScanSeconds) {
    out << " First assets after " << fixed(*report.firstAssetsScanSeconds, 1)
        << " s of scanning (from " << escapeMarkup(report.firstLocalizer) << ").";
  }
  out << "</p>\n<p>Positions are in the localization session's frame, which is the mapping "
         "session's "
      << escapeMarkup(transformInWords(report.scenario.localizationFromMapping())) << ".</p>\n";
  if (report.mapping.opened()) {
    out << "<figure>\n"
        << svgReport(report)
        << "<figcaption>Top down, in the room's frame: both camera paths, the expected assets "
           "(green rings) and where the kit put them (red crosses).</figcaption>\n</figure>\n";
  }
  out << "<h2>Assets</h2>\n";
  assetTable(out, report);
  out << "<h2>Timeline of transform updates</h2>\n";
  timelineTable(out, report);
  warningList(out, report);
  out << "</body>\n</html>\n";
  return out.str();
}

std::string writeHtmlReport(const ScenarioReport& report, double toleranceCm,
                            double toleranceDegrees, const std::string& path) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return "cannot open " + path + " for writing";
  out << htmlReport(report, toleranceCm, toleranceDegrees);
  out.close();
  if (!out) return "cannot write " + path;
  return "";
}

}  // namespace omra::tools
