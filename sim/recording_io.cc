#include "sim/recording_io.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <unordered_set>

#include "src/foundation/json_reader.h"

namespace omra::sim {
namespace {

using OJson = nlohmann::ordered_json;
using Json = nlohmann::ordered_json;

// The shortest decimal that reads back to the same float, as a double for the JSON writer.
double shortest(float f) {
  if (!std::isfinite(f)) return 0;
  char buf[32];
  const auto r = std::to_chars(buf, buf + sizeof buf, f);
  double d = 0;
  std::from_chars(buf, r.ptr, d);  // not strtod: locale-free
  return d;
}

OJson vec(const Float3& v) { return OJson::array({shortest(v.x), shortest(v.y), shortest(v.z)}); }
OJson vec(const Vec3& v) { return OJson::array({v.x, v.y, v.z}); }

OJson matrix(const Matrix4x4& m) {
  OJson a = OJson::array();
  for (const Float4& c : m.columns) {
    for (float f : {c.x, c.y, c.z, c.w}) a.push_back(shortest(f));
  }
  return a;
}

const char* kindName(PlaneEventKind k) {
  switch (k) {
    case PlaneEventKind::kAdded:
      return "added";
    case PlaneEventKind::kUpdated:
      return "updated";
    case PlaneEventKind::kRemoved:
      return "removed";
  }
  return "added";
}

OJson truthJson(const RecordingTruth& t) {
  OJson objects = OJson::array();
  for (const SimObject& o : t.room.objects) {
    objects.push_back({{"id", o.id},
                       {"class", o.className},
                       {"index", o.classIndex},
                       {"center", vec(o.center)},
                       {"size", vec(o.size)},
                       {"yaw", o.yaw},
                       {"slab", o.slabOnly}});
  }
  OJson j = {{"type", "truth"},
             {"session_from_room", t.sessionFromRoom.toText()},
             {"room",
              {{"width", t.room.width},
               {"depth", t.room.depth},
               {"height", t.room.height},
               {"walkway", {t.room.walkA, t.room.walkB}},
               {"objects", std::move(objects)}}}};
  if (!t.trackedFromRoom.empty()) {
    OJson tracked = OJson::array();
    for (const YawTransform& y : t.trackedFromRoom) tracked.push_back(y.toText());
    j["tracked_from_room"] = std::move(tracked);
  }
  return j;
}

OJson planeJson(const PlaneEvent& e) {
  const ArPlaneAnchor& a = e.anchor;
  OJson j = {{"type", "plane"},
             {"event", kindName(e.kind)},
             {"id", a.identifier},
             {"alignment", a.alignment == PlaneAlignment::kHorizontal ? "horizontal" : "vertical"},
             {"transform", matrix(a.transform)},
             {"center", vec(a.center)},
             {"extent", vec(a.extent)}};
  if (a.boundaryVertices) {
    OJson b = OJson::array();
    for (const Float3& v : *a.boundaryVertices) b.push_back(vec(v));
    j["boundary"] = std::move(b);
  }
  return j;
}

OJson frameJson(const RecordedFrame& f) {
  OJson dets = OJson::array();
  for (const Detection& d : f.detections) {
    OJson dj = {{"class", d.classIndex},
                {"score", shortest(d.score)},
                {"box", {shortest(d.yMin), shortest(d.xMin), shortest(d.yMax), shortest(d.xMax)}}};
    if (d.objectId != 0) dj["object"] = d.objectId;
    dets.push_back(std::move(dj));
  }
  OJson values = OJson::array();
  for (float v : f.activation.values) values.push_back(shortest(v));
  return {{"type", "frame"},
          {"index", f.index},
          {"timestamp", f.timestamp},
          {"transform", matrix(f.worldFromCamera)},
          {"euler", vec(f.eulerAngles)},
          {"points", f.pointIds},
          {"detections", std::move(dets)},
          {"activation", {{"shape", f.activation.shape}, {"values", std::move(values)}}}};
}

// ---- reading ----

struct LineError {
  std::string message;
};

const Json& need(const Json& j, const char* key, Json::value_t type, const char* what) {
  auto it = j.find(key);
  bool ok = it != j.end() &&
            (it->type() == type || (type == Json::value_t::number_float && it->is_number()) ||
             (type == Json::value_t::number_integer && it->is_number_integer()));
  if (!ok)
    throw LineError{std::string(what) + ": \"" + key + "\" is missing or has the wrong type"};
  return *it;
}

double number(const Json& j, const char* key, const char* what) {
  double v = need(j, key, Json::value_t::number_float, what).get<double>();
  if (!std::isfinite(v)) throw LineError{std::string(what) + ": \"" + key + "\" is not finite"};
  return v;
}

std::vector<double> numbers(const Json& j, const char* key, size_t count, const char* what) {
  const Json& a = need(j, key, Json::value_t::array, what);
  if (count != 0 && a.size() != count) {
    throw LineError{std::string(what) + ": \"" + key + "\" must hold " + std::to_string(count) +
                    " numbers"};
  }
  std::vector<double> out;
  for (const Json& v : a) {
    if (!v.is_number() || !std::isfinite(v.get<double>())) {
      throw LineError{std::string(what) + ": \"" + key + "\" must hold only numbers"};
    }
    out.push_back(v.get<double>());
  }
  return out;
}

Float3 float3(const std::vector<double>& v) {
  return {static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2])};
}

Matrix4x4 matrixFrom(const std::vector<double>& v) {
  Matrix4x4 m;
  for (size_t c = 0; c < 4; ++c) {
    m.columns[c] = {static_cast<float>(v[4 * c]), static_cast<float>(v[4 * c + 1]),
                    static_cast<float>(v[4 * c + 2]), static_cast<float>(v[4 * c + 3])};
  }
  return m;
}

void readHeader(const Json& j, Recording& rec) {
  if (!j.is_object() || !j.contains("format") || j["format"] != kRecordingFormat) {
    throw LineError{"not an omra recording (the first line must carry \"format\": \"" +
                    std::string(kRecordingFormat) + "\")"};
  }
  const Json& version = need(j, "version", Json::value_t::number_integer, "header");
  if (version.get<int64_t>() > kRecordingVersion) {
    throw LineError{"recording version " + std::to_string(version.get<int64_t>()) +
                    " is newer than this reader supports (" + std::to_string(kRecordingVersion) +
                    ")"};
  }
  if (version.get<int64_t>() < 1) throw LineError{"header: unknown recording version"};
  RecordingHeader& h = rec.header;
  if (j.contains("generator") && j["generator"].is_string()) h.generator = j["generator"];
  if (j.contains("role") && j["role"].is_string()) h.role = j["role"];
  if (j.contains("scene_seed") && j["scene_seed"].is_number_unsigned())
    h.sceneSeed = j["scene_seed"];
  if (j.contains("session_seed") && j["session_seed"].is_number_unsigned()) {
    h.sessionSeed = j["session_seed"];
  }
  h.fps = number(j, "fps", "header");
  const Json& image = need(j, "image", Json::value_t::object, "header");
  h.imageWidth = static_cast<int>(
      need(image, "width", Json::value_t::number_integer, "header image").get<int64_t>());
  h.imageHeight = static_cast<int>(
      need(image, "height", Json::value_t::number_integer, "header image").get<int64_t>());
  h.horizontalFovDegrees =
      number(need(j, "camera", Json::value_t::object, "header"), "hfov_deg", "header camera");
  if (h.fps <= 0 || h.imageWidth < 1 || h.imageHeight < 1 || h.imageWidth > 4096 ||
      h.imageHeight > 4096 || h.horizontalFovDegrees <= 0 || h.horizontalFovDegrees >= 180) {
    throw LineError{"header: fps, image size or field of view out of range"};
  }
}

void readTruth(const Json& j, Recording& rec) {
  RecordingTruth t;
  auto transform = YawTransform::fromText(
      need(j, "session_from_room", Json::value_t::string, "truth").get<std::string>());
  if (!transform) throw LineError{"truth: \"session_from_room\" is not \"tx,ty,tz,theta\""};
  t.sessionFromRoom = *transform;
  const Json& room = need(j, "room", Json::value_t::object, "truth");
  t.room.width = number(room, "width", "truth room");
  t.room.depth = number(room, "depth", "truth room");
  t.room.height = number(room, "height", "truth room");
  auto walk = numbers(room, "walkway", 2, "truth room");
  t.room.walkA = walk[0];
  t.room.walkB = walk[1];
  for (const Json& o : need(room, "objects", Json::value_t::array, "truth room")) {
    if (!o.is_object()) throw LineError{"truth room: an object is not a JSON object"};
    SimObject s;
    s.id = static_cast<int>(
        need(o, "id", Json::value_t::number_integer, "truth object").get<int64_t>());
    s.className = need(o, "class", Json::value_t::string, "truth object").get<std::string>();
    s.classIndex = static_cast<int>(
        need(o, "index", Json::value_t::number_integer, "truth object").get<int64_t>());
    auto c = numbers(o, "center", 3, "truth object"), z = numbers(o, "size", 3, "truth object");
    s.center = {c[0], c[1], c[2]};
    s.size = {z[0], z[1], z[2]};
    s.yaw = number(o, "yaw", "truth object");
    s.slabOnly = need(o, "slab", Json::value_t::boolean, "truth object").get<bool>();
    if (s.id != static_cast<int>(t.room.objects.size()) + 1) {
      throw LineError{"truth room: object ids must count up from 1"};
    }
    t.room.objects.push_back(std::move(s));
  }
  if (auto it = j.find("tracked_from_room"); it != j.end()) {
    if (!it->is_array()) throw LineError{"truth: \"tracked_from_room\" is not an array"};
    t.trackedFromRoom.reserve(it->size());
    for (const Json& y : *it) {
      std::optional<YawTransform> tracked =
          y.is_string() ? YawTransform::fromText(y.get<std::string>()) : std::nullopt;
      if (!tracked) throw LineError{"truth: \"tracked_from_room\" holds a value that is not \"tx,ty,tz,theta\""};
      t.trackedFromRoom.push_back(*tracked);
    }
  }
  rec.truth = std::move(t);
}

void readPoints(const Json& j, Recording& rec) {
  for (const Json& p : need(j, "points", Json::value_t::array, "points")) {
    if (!p.is_array() || p.size() != 4 || !p[0].is_number_unsigned()) {
      throw LineError{"points: each point must be [id, x, y, z]"};
    }
    for (size_t k = 1; k < 4; ++k) {
      if (!p[k].is_number() || !std::isfinite(p[k].get<double>())) {
        throw LineError{"points: coordinates must be finite numbers"};
      }
    }
    rec.points[p[0].get<uint64_t>()] = {p[1].get<float>(), p[2].get<float>(), p[3].get<float>()};
  }
}

PlaneEvent readPlane(const Json& j) {
  PlaneEvent e;
  std::string kind = need(j, "event", Json::value_t::string, "plane").get<std::string>();
  if (kind == "added")
    e.kind = PlaneEventKind::kAdded;
  else if (kind == "updated")
    e.kind = PlaneEventKind::kUpdated;
  else if (kind == "removed")
    e.kind = PlaneEventKind::kRemoved;
  else
    throw LineError{"plane: unknown event \"" + kind + "\""};
  ArPlaneAnchor& a = e.anchor;
  a.identifier = need(j, "id", Json::value_t::string, "plane").get<std::string>();
  std::string alignment = need(j, "alignment", Json::value_t::string, "plane").get<std::string>();
  if (alignment != "horizontal" && alignment != "vertical") {
    throw LineError{"plane: \"alignment\" must be \"horizontal\" or \"vertical\""};
  }
  a.alignment = alignment == "horizontal" ? PlaneAlignment::kHorizontal : PlaneAlignment::kVertical;
  a.transform = matrixFrom(numbers(j, "transform", 16, "plane"));
  a.center = float3(numbers(j, "center", 3, "plane"));
  a.extent = float3(numbers(j, "extent", 3, "plane"));
  if (j.contains("boundary")) {
    std::vector<Float3> vertices;
    const Json& b = need(j, "boundary", Json::value_t::array, "plane");
    for (const Json& v : b) {
      if (!v.is_array() || v.size() != 3 || !v[0].is_number() || !v[1].is_number() ||
          !v[2].is_number()) {
        throw LineError{"plane: boundary vertices must be [x, y, z]"};
      }
      vertices.push_back({v[0].get<float>(), v[1].get<float>(), v[2].get<float>()});
    }
    a.boundaryVertices = std::move(vertices);
  }
  return e;
}

RecordedFrame readFrame(const Json& j, const Recording& rec) {
  RecordedFrame f;
  f.index = need(j, "index", Json::value_t::number_integer, "frame").get<int64_t>();
  f.timestamp = number(j, "timestamp", "frame");
  f.worldFromCamera = matrixFrom(numbers(j, "transform", 16, "frame"));
  f.eulerAngles = float3(numbers(j, "euler", 3, "frame"));
  for (const Json& id : need(j, "points", Json::value_t::array, "frame")) {
    if (!id.is_number_unsigned()) throw LineError{"frame: \"points\" must hold identifiers"};
    uint64_t v = id.get<uint64_t>();
    if (!rec.points.count(v)) {
      throw LineError{"frame " + std::to_string(f.index) + " refers to unknown feature point " +
                      std::to_string(v)};
    }
    f.pointIds.push_back(v);
  }
  for (const Json& d : need(j, "detections", Json::value_t::array, "frame")) {
    if (!d.is_object()) throw LineError{"frame: a detection is not a JSON object"};
    Detection det;
    det.classIndex = static_cast<int>(
        need(d, "class", Json::value_t::number_integer, "detection").get<int64_t>());
    if (det.classIndex < 1 || det.classIndex > 90)
      throw LineError{"detection: \"class\" must be 1..90"};
    det.score = static_cast<float>(number(d, "score", "detection"));
    auto box = numbers(d, "box", 4, "detection");
    det.yMin = static_cast<float>(box[0]);
    det.xMin = static_cast<float>(box[1]);
    det.yMax = static_cast<float>(box[2]);
    det.xMax = static_cast<float>(box[3]);
    if (d.contains("object")) {
      det.objectId = static_cast<int>(
          need(d, "object", Json::value_t::number_integer, "detection").get<int64_t>());
    }
    f.detections.push_back(det);
  }
  const Json& act = need(j, "activation", Json::value_t::object, "frame");
  auto shape = numbers(act, "shape", 3, "frame activation");
  auto values = numbers(act, "values", 0, "frame activation");
  int64_t count = 1;
  for (double s : shape) {
    if (s < 0 || s > 1e6 || s != std::floor(s)) throw LineError{"frame activation: bad shape"};
    f.activation.shape.push_back(static_cast<int64_t>(s));
    count *= static_cast<int64_t>(s);
  }
  if (count != static_cast<int64_t>(values.size())) {
    throw LineError{"frame activation: " + std::to_string(values.size()) +
                    " values do not fill the shape"};
  }
  for (double v : values) f.activation.values.push_back(static_cast<float>(v));
  return f;
}

}  // namespace

void writeRecording(const Recording& rec, std::ostream& out) {
  const RecordingHeader& h = rec.header;
  OJson header = {{"format", kRecordingFormat},
                  {"version", kRecordingVersion},
                  {"generator", h.generator},
                  {"role", h.role},
                  {"scene_seed", h.sceneSeed},
                  {"session_seed", h.sessionSeed},
                  {"fps", h.fps},
                  {"image", {{"width", h.imageWidth}, {"height", h.imageHeight}}},
                  {"camera", {{"hfov_deg", h.horizontalFovDegrees}}}};
  out << header.dump() << '\n';
  if (rec.truth) out << truthJson(*rec.truth).dump() << '\n';
  std::unordered_set<uint64_t> written;
  size_t frames = 0;
  for (const RecordingEvent& e : rec.events) {
    if (const auto* f = std::get_if<RecordedFrame>(&e)) {
      OJson fresh = OJson::array();
      for (uint64_t id : f->pointIds) {
        auto it = rec.points.find(id);
        if (it == rec.points.end() || !written.insert(id).second) continue;
        fresh.push_back(
            {id, shortest(it->second.x), shortest(it->second.y), shortest(it->second.z)});
      }
      if (!fresh.empty())
        out << OJson{{"type", "points"}, {"points", std::move(fresh)}}.dump() << '\n';
      out << frameJson(*f).dump() << '\n';
      ++frames;
    } else {
      out << planeJson(std::get<PlaneEvent>(e)).dump() << '\n';
    }
  }
  out << OJson{{"type", "end"}, {"frames", frames}, {"events", rec.events.size()}}.dump() << '\n';
}

std::string writeRecordingFile(const Recording& recording, const std::string& path) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return "cannot open " + path + " for writing";
  writeRecording(recording, out);
  out.flush();
  if (!out) return "writing " + path + " failed";
  return "";
}

RecordingReadResult readRecording(std::istream& in) {
  RecordingReadResult result;
  Recording rec;
  std::string line;
  int64_t lineNo = 0;
  bool ended = false;
  int64_t lastFrame = -1;
  auto fail = [&](int64_t n, const std::string& message) {
    result.error = "line " + std::to_string(n) + ": " + message;
    return result;
  };
  while (std::getline(in, line)) {
    ++lineNo;
    bool complete = !in.eof();  // the last line of a whole file ends with a newline
    if (line.empty()) continue;
    if (ended) return fail(lineNo, "content after the end line");
    std::string why;
    std::optional<Json> parsed = readJson(line, &why);
    if (!parsed || !parsed->is_object()) {
      if (!complete) return fail(lineNo, "truncated: the file ends in the middle of this line");
      return fail(lineNo,
                  "not a valid JSON object (corrupt line" + (why.empty() ? "" : ": " + why) + ")");
    }
    Json& j = *parsed;
    try {
      if (lineNo == 1) {
        readHeader(j, rec);
        continue;
      }
      if (!j.contains("type") || !j["type"].is_string())
        throw LineError{"event without a \"type\""};
      std::string type = j["type"];
      if (type == "truth") {
        readTruth(j, rec);
      } else if (type == "points") {
        readPoints(j, rec);
      } else if (type == "plane") {
        rec.events.emplace_back(readPlane(j));
      } else if (type == "frame") {
        RecordedFrame f = readFrame(j, rec);
        if (f.index <= lastFrame) throw LineError{"frame indices must increase"};
        lastFrame = f.index;
        rec.events.emplace_back(std::move(f));
      } else if (type == "end") {
        int64_t frames = need(j, "frames", Json::value_t::number_integer, "end").get<int64_t>();
        if (frames != static_cast<int64_t>(rec.frameCount())) {
          throw LineError{"end line counts " + std::to_string(frames) + " frames, the file holds " +
                          std::to_string(rec.frameCount())};
        }
        ended = true;
      } else {
        throw LineError{"unknown event type \"" + type + "\""};
      }
    } catch (const LineError& e) {
      return fail(lineNo, e.message);
    } catch (const Json::exception& e) {
      return fail(lineNo, std::string("unexpected value: ") + e.what());
    } catch (const std::exception& e) {
      return fail(lineNo, std::string("cannot read: ") + e.what());
    }
  }
  if (lineNo == 0) return fail(1, "empty file: no recording header");
  if (!ended) return fail(lineNo, "truncated: the recording ends without its end line");
  rec.indexFrames();
  result.recording = std::move(rec);
  return result;
}

RecordingReadResult readRecordingFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    RecordingReadResult r;
    r.error = "cannot open " + path;
    return r;
  }
  return readRecording(in);
}

}  // namespace omra::sim
