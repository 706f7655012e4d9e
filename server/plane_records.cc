#include "server/plane_records.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>

#include "src/cloud/detected_plane_model.h"

namespace omra::server {

std::optional<PlaneObservation> parsePlaneTransform(const std::string& text) {
  double v[16];
  size_t pos = 0;
  for (int i = 0; i < 16; ++i) {
    size_t end = text.find(',', pos);
    if (end == std::string::npos) end = text.size();
    if ((i < 15) == (end == text.size())) return std::nullopt;
    auto [ptr, ec] = std::from_chars(text.data() + pos, text.data() + end, v[i]);
    if (ec != std::errc() || ptr != text.data() + end || !std::isfinite(v[i])) return std::nullopt;
    pos = end + 1;
  }
  PlaneObservation p;
  p.origin = {v[12], v[13], v[14]};
  const double len = std::sqrt(v[4] * v[4] + v[5] * v[5] + v[6] * v[6]);
  if (len < 1e-6) return std::nullopt;
  p.normal = {v[4] / len, v[5] / len, v[6] / len};
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
