#include "tools/runner/svg_report.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <variant>

namespace omra::tools {
namespace {

constexpr double kScale = 100;  // pixels per metre
constexpr double kMargin = 40;  // pixels around the room

struct Canvas {
  double halfWidth = 0, halfDepth = 0;
  double x(double metres) const { return kMargin + (metres + halfWidth) * kScale; }
  double y(double metres) const { return kMargin + (metres + halfDepth) * kScale; }
};

std::string num(double v) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.1f", v);
  return buffer;
}

std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else if (c == '&') {
      out += "&amp;";
    } else {
      out += c;
    }
  }
  return out;
}

// The camera path of a recording, carried into the room frame.
std::string cameraPath(const Canvas& canvas, const sim::Recording& recording, const char* colour) {
  if (!recording.truth) return "";
  const sim::YawTransform roomFromSession = recording.truth->sessionFromRoom.inverse();
  std::ostringstream points;
  size_t n = 0;
  for (const sim::RecordingEvent& e : recording.events) {
    const auto* f = std::get_if<sim::RecordedFrame>(&e);
    if (!f || f->index % 6 != 0) continue;  // ten points a second are plenty
    const Float4& c = f->worldFromCamera.columns[3];
    sim::Vec3 p = roomFromSession.apply(sim::Vec3{c.x, c.y, c.z});
    points << (n++ ? " " : "") << num(canvas.x(p.x)) << ',' << num(canvas.y(p.z));
  }
  return "<polyline fill=\"none\" stroke=\"" + std::string(colour) +
         "\" stroke-width=\"1.5\" points=\"" + points.str() + "\"/>\n";
}

}  // namespace

std::string svgReport(const ScenarioReport& report) {
  const sim::Room& room = *report.scenario.room;
  Canvas canvas{room.width / 2, room.depth / 2};
  const double w = room.width * kScale + 2 * kMargin;
  const double h = room.depth * kScale + 2 * kMargin + 60;
  std::ostringstream svg;
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << num(w) << "\" height=\"" << num(h)
      << "\" font-family=\"sans-serif\" font-size=\"11\">\n";
  svg << "<rect x=\"0\" y=\"0\" width=\"" << num(w) << "\" height=\"" << num(h)
      << "\" fill=\"white\"/>\n";
  svg << "<rect x=\"" << num(canvas.x(-canvas.halfWidth)) << "\" y=\""
      << num(canvas.y(-canvas.halfDepth)) << "\" width=\"" << num(room.width * kScale)
      << "\" height=\"" << num(room.depth * kScale)
      << "\" fill=\"#f7f7f2\" stroke=\"black\" stroke-width=\"3\"/>\n";

  // Objects: their footprints, turned by their yaw (local x -> (cos, -sin), local z -> (sin, cos)).
  for (const sim::SimObject& o : room.objects) {
    const double c = std::cos(o.yaw), s = std::sin(o.yaw);
    const double hx = o.size.x / 2, hz = o.size.z / 2;
    const double corners[4][2] = {{-hx, -hz}, {hx, -hz}, {hx, hz}, {-hx, hz}};
    svg << "<polygon fill=\"#d9d4c7\" stroke=\"#8a8170\" points=\"";
    for (int i = 0; i < 4; ++i) {
      const double x = o.center.x + c * corners[i][0] + s * corners[i][1];
      const double z = o.center.z - s * corners[i][0] + c * corners[i][1];
      svg << (i ? " " : "") << num(canvas.x(x)) << ',' << num(canvas.y(z));
    }
    svg << "\"><title>" << escape(o.className) << "</title></polygon>\n";
    svg << "<text x=\"" << num(canvas.x(o.center.x)) << "\" y=\"" << num(canvas.y(o.center.z) + 4)
        << "\" text-anchor=\"middle\" fill=\"#5a5445\" font-size=\"9\">" << escape(o.className)
        << "</text>\n";
  }

  svg << cameraPath(canvas, *report.scenario.mapping, "#2b6cb0");
  svg << cameraPath(canvas, *report.scenario.localization, "#c05621");

  const sim::YawTransform roomFromLoc =
      report.scenario.localization->truth->sessionFromRoom.inverse();
  for (const AssetOutcome& a : report.assets) {
    svg << "<circle cx=\"" << num(canvas.x(a.room.x)) << "\" cy=\"" << num(canvas.y(a.room.z))
        << "\" r=\"9\" fill=\"none\" stroke=\"#2f855a\" stroke-width=\"2.5\"/>\n";
    svg << "<text x=\"" << num(canvas.x(a.room.x) + 11) << "\" y=\"" << num(canvas.y(a.room.z) - 8)
        << "\" fill=\"#2f855a\">" << escape(a.id) << "</text>\n";
    if (a.placed) {
      sim::Vec3 p = roomFromLoc.apply(*a.placed);
      const double x = canvas.x(p.x), y = canvas.y(p.z);
      svg << "<path d=\"M" << num(x - 6) << ',' << num(y - 6) << " L" << num(x + 6) << ','
          << num(y + 6) << " M" << num(x - 6) << ',' << num(y + 6) << " L" << num(x + 6) << ','
          << num(y - 6) << "\" stroke=\"#c53030\" stroke-width=\"2.5\"/>\n";
    }
  }

  // Legend.
  const double ly = room.depth * kScale + 2 * kMargin + 10;
  auto legend = [&](double x, const std::string& swatch, const std::string& label) {
    svg << "<g transform=\"translate(" << num(x) << ',' << num(ly) << ")\">" << swatch
        << "<text x=\"22\" y=\"4\">" << escape(label) << "</text></g>\n";
  };
  legend(kMargin,
         "<line x1=\"0\" y1=\"0\" x2=\"18\" y2=\"0\" stroke=\"#2b6cb0\" stroke-width=\"2\"/>",
         "mapping camera path");
  legend(kMargin + 160,
         "<line x1=\"0\" y1=\"0\" x2=\"18\" y2=\"0\" stroke=\"#c05621\" stroke-width=\"2\"/>",
         "localization camera path");
  svg << "<g transform=\"translate(" << num(kMargin) << ',' << num(ly + 22) << ")\">"
      << "<circle cx=\"9\" cy=\"0\" r=\"7\" fill=\"none\" stroke=\"#2f855a\" stroke-width=\"2\"/>"
      << "<text x=\"22\" y=\"4\">expected asset</text>"
      << "<path d=\"M163,-6 L175,6 M163,6 L175,-6\" stroke=\"#c53030\" stroke-width=\"2\"/>"
      << "<text x=\"182\" y=\"4\">relocalized asset"
      << (report.localizer.empty() ? "" : " (" + escape(report.localizer) + ")") << "</text></g>\n";
  svg << "<text x=\"" << num(kMargin) << "\" y=\"22\" font-size=\"13\">scene "
      << report.scenario.seed << ": " << num(room.width) << " m x " << num(room.depth) << " m, "
      << room.objects.size() << " objects</text>\n";
  svg << "</svg>\n";
  return svg.str();
}

std::string writeSvgReport(const ScenarioReport& report, const std::string& path) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return "cannot open " + path + " for writing";
  out << svgReport(report);
  out.close();
  if (!out) return "cannot write " + path;
  return "";
}

}  // namespace omra::tools
