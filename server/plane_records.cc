#include "server/plane_records.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <string_view>

#include "src/cloud/detected_plane_model.h"

namespace omra::server {

namespace {

// Exactly n finite numbers separated by commas, the whole of text.
bool parseNumbers(std::string_view text, double* v, int n) {
  size_t pos = 0;
  for (int i = 0; i < n; ++i) {
    size_t end = text.find(',', pos);
    if (end == std::string_view::npos) end = text.size();
    if ((i < n - 1) == (end == text.size())) return false;
    auto [ptr, ec] = std::from_chars(text.data() + pos, text.data() + end, v[i]);
    if (ec != std::errc() || ptr != text.data() + end || !std::isfinite(v[i])) return false;
    pos = end + 1;
  }
  return true;
}

}  // namespace

std::optional<PlaneOutline> parsePlaneOutline(const std::string& vertices,
                                              const std::string& transform) {
  double m[16];
  if (!parseNumbers(transform, m, 16)) return std::nullopt;
  // A platform's outline has tens of vertices; far more is no outline.
  constexpr int kMaxVertices = 4096;
  double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
  std::string_view rest = vertices;
  for (int count = 0; !rest.empty(); ++count) {
    if (count == kMaxVertices) return std::nullopt;
    const size_t bar = rest.find('|');
    double v[3];
    if (!parseNumbers(rest.substr(0, bar), v, 3)) return std::nullopt;
    for (int k = 0; k < 3; ++k) lo[k] = std::min(lo[k], v[k]), hi[k] = std::max(hi[k], v[k]);
    rest = bar == std::string_view::npos ? std::string_view() : rest.substr(bar + 1);
    if (bar != std::string_view::npos && rest.empty()) return std::nullopt;
  }
  // The extent lies in the anchor's x-z plane.
  const double a = hi[0] - lo[0], b = hi[2] - lo[2];
  if (!(a > 1e-3) || !(b > 1e-3)) return std::nullopt;
  const double local[3] = {(lo[0] + hi[0]) / 2, 0, (lo[2] + hi[2]) / 2};
  PlaneOutline out;
  for (int r = 0; r < 3; ++r) {
    out.centre[static_cast<size_t>(r)] =
        m[12 + r] + m[r] * local[0] + m[4 + r] * local[1] + m[8 + r] * local[2];
  }
  out.longSide = std::max(a, b);
  out.shortSide = std::min(a, b);
  return out;
}

std::optional<PlaneObservation> parsePlaneTransform(const std::string& text) {
  double v[16];
  if (!parseNumbers(text, v, 16)) return std::nullopt;
  PlaneObservation p;
  p.origin = {v[12], v[13], v[14]};
  const double len = std::sqrt(v[4] * v[4] + v[5] * v[5] + v[6] * v[6]);
  if (len < 1e-6) return std::nullopt;
  p.normal = {v[4] / len, v[5] / len, v[6] / len};
  const double axisLength = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  if (axisLength > 1e-6) p.axis = {v[0] / axisLength, v[1] / axisLength, v[2] / axisLength};
  return p;
}

std::optional<DetectedPlaneModel> planeEventOf(const Item& item) {
  std::optional<DetectedPlaneModel> m = DetectedPlaneModel::fromItem(item);
  if (m && !m->planeId) m.reset();
  return m;
}

std::vector<PlaneObservation> readPlanes(RecordStore& store, const std::string& sessionId,
                                         std::optional<StoreError>* error, size_t* skipped) {
  size_t bad = 0;
  std::vector<DetectedPlaneModel> events;
  for (const Item& item :
       queryAll(store, DetectedPlaneModel::kTableName, AttributeValue::string(sessionId), error)) {
    std::optional<DetectedPlaneModel> m = planeEventOf(item);
    if (m) {
      events.push_back(std::move(*m));
    } else {
      ++bad;
    }
  }
  size_t badFold = 0;
  std::vector<PlaneObservation> out = foldPlaneEvents(std::move(events), &badFold);
  if (skipped) *skipped = bad + badFold;
  return out;
}

std::vector<PlaneObservation> foldPlaneEvents(std::vector<DetectedPlaneModel> events,
                                              size_t* skipped) {
  size_t bad = 0;
  // Records come in "RecordId" order, the order the kit wrote them; a plane's state is the one of
  // its latest frame (the stable sort keeps write order within a frame).
  std::stable_sort(events.begin(), events.end(), [](const auto& a, const auto& b) {
    return a.frameId.value_or(0) < b.frameId.value_or(0);
  });
  std::map<std::string, std::optional<PlaneObservation>> newest;
  for (const DetectedPlaneModel* m = events.data(); m != events.data() + events.size(); ++m) {
    if (m->isRemoved.value_or(false)) {
      newest[*m->planeId] = std::nullopt;
      continue;
    }
    std::optional<PlaneObservation> p;
    if (m->transformMatrix && m->alignment) p = parsePlaneTransform(*m->transformMatrix);
    if (!p) {
      ++bad;
      continue;
    }
    if (m->vertices) p->outline = parsePlaneOutline(*m->vertices, *m->transformMatrix);
    p->planeId = *m->planeId;
    p->vertical = *m->alignment == "vertical";
    newest[*m->planeId] = std::move(p);
  }
  std::vector<PlaneObservation> out;
  for (auto& [id, p] : newest) {
    if (p) out.push_back(std::move(*p));
  }
  if (skipped) *skipped = bad;
  return out;
}

}  // namespace omra::server
