#include "tools/runner/svg_report.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <variant>
#include <vector>

#include "tools/runner/markup.h"

namespace omra::tools {
namespace {

constexpr double kScale = 100;  // pixels per metre
constexpr double kMargin = 40;  // pixels around the room

struct Canvas {
  double halfWidth = 0, halfDepth = 0;
  double x(double metres) const { return kMargin + (metres + halfWidth) * kScale; }
  double y(double metres) const { return kMargin + (metres + halfDepth) * kScale; }
};

std::string num(double v) { return fixed(v, 1); }

// Places text labels so that none overlaps another or leaves the picture: each label tries a few
// spots around its anchor and takes the first free one (the last one tried when none is).
class LabelPlacer {
 public:
  struct Box {
    double x0, y0, x1, y1;
    bool overlaps(const Box& o) const { return x0 < o.x1 && o.x0 < x1 && y0 < o.y1 && o.y0 < y1; }
  };

  LabelPlacer(double width, double height) : width_(width), height_(height) {}

  // Reserves an area that labels must avoid (a marker).
  void block(Box box) { taken_.push_back(box); }

  // Text of fontSize px centred vertically at the chosen spot; returns the <text> element.
  std::string place(double anchorX, double anchorY, const std::string& text, double fontSize,
                    const std::string& colour) {
    const double width = 0.6 * fontSize * static_cast<double>(text.size());
    const double height = fontSize + 2;
    // Right, left, above, below, then further out diagonally.
    const double gap = 10;
    const double spots[][2] = {{gap, 0},
                               {-gap - width, 0},
                               {-width / 2, -gap - height / 2},
                               {-width / 2, gap + height / 2},
                               {gap, -height},
                               {gap, height},
                               {-gap - width, -height},
                               {-gap - width, height},
                               {-width / 2, -gap - 1.5 * height},
                               {-width / 2, gap + 1.5 * height}};
    Box chosen{};
    for (const auto& spot : spots) {
      const double x = anchorX + spot[0], y = anchorY + spot[1];
      chosen = Box{x, y - height / 2, x + width, y + height / 2};
      bool free = chosen.x0 >= 0 && chosen.y0 >= 0 && chosen.x1 <= width_ && chosen.y1 <= height_;
      for (const Box& b : taken_) free = free && !b.overlaps(chosen);
      if (free) break;
    }
    taken_.push_back(chosen);
    return "<text class=\"label\" x=\"" + num(chosen.x0) + "\" y=\"" + num(chosen.y1 - 3) +
           "\" font-size=\"" + num(fontSize) + "\" fill=\"" + colour + "\" data-box=\"" +
           num(chosen.x0) + "," + num(chosen.y0) + "," + num(chosen.x1) + "," + num(chosen.y1) +
           "\">" + escapeMarkup(text) + "</text>\n";
  }

 private:
  double width_, height_;
  std::vector<Box> taken_;
};

std::string assetLabel(const AssetOutcome& a) {
  if (!a.placed) return a.id + ": not returned";
  return a.id + ": " + fixed(a.errorCm, 1) + " cm, " + fixed(a.errorDegrees, 1) + " deg";
}

// The camera path of a recording, carried into the room frame: its first `fed` frames, those the
// kit was given.
std::string cameraPath(const Canvas& canvas, const sim::Recording& recording, size_t fed,
                       const char* colour) {
  if (!recording.truth) return "";
  const sim::YawTransform roomFromSession = recording.truth->sessionFromRoom.inverse();
  std::ostringstream points;
  size_t n = 0;
  size_t frames = 0;
  for (const sim::RecordingEvent& e : recording.events) {
    const auto* f = std::get_if<sim::RecordedFrame>(&e);
    if (!f) continue;
    if (frames++ >= fed) break;
    if (f->index % 6 != 0) continue;  // ten points a second are plenty
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
  const double h = room.depth * kScale + 2 * kMargin + 70;
  std::ostringstream svg;
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << num(w) << "\" height=\"" << num(h)
      << "\" font-family=\"sans-serif\" font-size=\"11\">\n";
  svg << "<rect x=\"0\" y=\"0\" width=\"" << num(w) << "\" height=\"" << num(h)
      << "\" fill=\"white\"/>\n";
  svg << "<rect x=\"" << num(canvas.x(-canvas.halfWidth)) << "\" y=\""
      << num(canvas.y(-canvas.halfDepth)) << "\" width=\"" << num(room.width * kScale)
      << "\" height=\"" << num(room.depth * kScale)
      << "\" fill=\"#f7f7f2\" stroke=\"black\" stroke-width=\"3\"/>\n";

  // Markers first, so that labels keep clear of them; labels last, so that they stay on top.
  LabelPlacer labels(w, h);
  std::ostringstream labelText;
  const sim::YawTransform roomFromLoc =
      report.scenario.localization->truth->sessionFromRoom.inverse();
  for (const AssetOutcome& a : report.assets) {
    const double x = canvas.x(a.room.x), y = canvas.y(a.room.z);
    labels.block({x - 10, y - 10, x + 10, y + 10});
  }

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
    svg << "\"><title>" << escapeMarkup(o.className) << "</title></polygon>\n";
  }

  svg << cameraPath(canvas, *report.scenario.mapping, report.mapping.framesFed, "#2b6cb0");
  svg << cameraPath(canvas, *report.scenario.localization, report.localization.framesFed,
                    "#c05621");

  // Asset labels (with their errors) are placed before the object labels: they matter more.
  for (const AssetOutcome& a : report.assets) {
    labelText << labels.place(canvas.x(a.room.x), canvas.y(a.room.z), assetLabel(a), 11,
                              a.placed ? "#2f855a" : "#c53030");
  }
  for (const sim::SimObject& o : room.objects) {
    labelText << labels.place(canvas.x(o.center.x), canvas.y(o.center.z), o.className, 9,
                              "#5a5445");
  }

  for (const AssetOutcome& a : report.assets) {
    svg << "<circle cx=\"" << num(canvas.x(a.room.x)) << "\" cy=\"" << num(canvas.y(a.room.z))
        << "\" r=\"9\" fill=\"none\" stroke=\"#2f855a\" stroke-width=\"2.5\"/>\n";
    if (a.placed) {
      sim::Vec3 p = roomFromLoc.apply(*a.placed);
      const double x = canvas.x(p.x), y = canvas.y(p.z);
      svg << "<path d=\"M" << num(x - 6) << ',' << num(y - 6) << " L" << num(x + 6) << ','
          << num(y + 6) << " M" << num(x - 6) << ',' << num(y + 6) << " L" << num(x + 6) << ','
          << num(y - 6) << "\" stroke=\"#c53030\" stroke-width=\"2.5\"/>\n";
    }
  }

  svg << labelText.str();

  // Scale bar: one metre, under the room's left corner.
  const double sx = kMargin, sy = room.depth * kScale + kMargin + 16;
  svg << "<g class=\"scale\"><line x1=\"" << num(sx) << "\" y1=\"" << num(sy) << "\" x2=\""
      << num(sx + kScale) << "\" y2=\"" << num(sy) << "\" stroke=\"black\" stroke-width=\"2\"/>"
      << "<text x=\"" << num(sx + kScale + 6) << "\" y=\"" << num(sy + 4) << "\">1 m</text></g>\n";

  // Legend.
  const double ly = room.depth * kScale + 2 * kMargin + 20;
  auto legend = [&](double x, const std::string& swatch, const std::string& label) {
    svg << "<g transform=\"translate(" << num(x) << ',' << num(ly) << ")\">" << swatch
        << "<text x=\"22\" y=\"4\">" << escapeMarkup(label) << "</text></g>\n";
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
      << (report.localizer.empty() ? "" : " (" + escapeMarkup(report.localizer) + ")")
      << "</text></g>\n";
  svg << "<text x=\"" << num(kMargin) << "\" y=\"22\" font-size=\"13\">scene "
      << report.scenario.seed << ": " << num(room.width) << " m x " << num(room.depth) << " m, "
      << room.objects.size() << " objects; " << report.localization.framesFed << " of "
      << report.localization.framesTotal << " localization frames fed</text>\n";
  // A failed run says so on the picture, not only on the terminal.
  if (!report.success) {
    svg << "<text class=\"verdict\" x=\"" << num(w - kMargin) << "\" y=\"22\" font-size=\"13\" "
        << "text-anchor=\"end\" fill=\"#c53030\" font-weight=\"bold\">FAIL: "
        << escapeMarkup(report.failure) << "</text>\n";
  }
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
