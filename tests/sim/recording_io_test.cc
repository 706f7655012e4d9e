#include "sim/recording_io.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "sim/scenario.h"
#include "tests/common/locale_testutil.h"
#include "tests/sim/sim_testutil.h"

namespace omra::sim {
namespace {

std::string written(const Recording& r) {
  std::ostringstream out;
  writeRecording(r, out);
  return out.str();
}

RecordingReadResult readText(const std::string& text) {
  std::istringstream in(text);
  return readRecording(in);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) out.push_back(line);
  return out;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

// Written to a file and read back: the same text when written again (so nothing read is
// dropped), and the same values in memory (so nothing written loses precision).
TEST(RecordingIo, RoundTripThroughAFile) {
  const Recording& original = *testing::shortScenario().localization;
  const std::string path = std::string(OMRA_BINARY_DIR) + "/sim_recording_io_test.jsonl";
  ASSERT_EQ(writeRecordingFile(original, path), "");
  RecordingReadResult r = readRecordingFile(path);
  std::remove(path.c_str());
  ASSERT_TRUE(r.recording.has_value()) << r.error;
  EXPECT_EQ(written(*r.recording), written(original));
  const Recording& back = *r.recording;
  EXPECT_EQ(back.header.role, "localization");
  ASSERT_EQ(back.events.size(), original.events.size());
  ASSERT_TRUE(back.truth.has_value());
  EXPECT_EQ(back.truth->sessionFromRoom.theta, original.truth->sessionFromRoom.theta);
  for (size_t i = 0; i < back.events.size(); ++i) {
    ASSERT_EQ(back.events[i].index(), original.events[i].index());
    const auto* f = std::get_if<RecordedFrame>(&back.events[i]);
    if (!f) continue;
    const auto& g = std::get<RecordedFrame>(original.events[i]);
    EXPECT_EQ(f->activation.values, g.activation.values);
    for (size_t c = 0; c < 4; ++c)
      EXPECT_EQ(f->worldFromCamera.columns[c].z, g.worldFromCamera.columns[c].z);
    for (uint64_t id : f->pointIds) EXPECT_EQ(back.points.at(id).y, original.points.at(id).y);
    for (size_t k = 0; k < f->detections.size(); ++k) {
      EXPECT_EQ(f->detections[k].score, g.detections[k].score);
      EXPECT_EQ(f->detections[k].yMax, g.detections[k].yMax);
    }
  }
  EXPECT_NE(back.frame(5), nullptr);
  EXPECT_EQ(back.frame(100000), nullptr);
  EXPECT_NE(readRecordingFile(path).error.find("cannot open"), std::string::npos);
  EXPECT_NE(writeRecordingFile(original, "/nonexistent-dir/x.jsonl"), "");
}

// A drifting session keeps, per frame, where its tracking put the room; a damaged track is refused.
TEST(RecordingIo, DriftTrackRoundTrips) {
  ScenarioOptions o = testing::shortScenarioOptions(43);
  o.drift.positionPerMetre = 0.02;
  o.drift.yawDegreesPerMinute = 5;
  const Scenario scenario = makeScenario(o);
  const Recording& original = *scenario.mapping;
  ASSERT_EQ(original.truth->trackedFromRoom.size(), original.frameCount());
  const std::string text = written(original);
  RecordingReadResult r = readText(text);
  ASSERT_TRUE(r.recording.has_value()) << r.error;
  EXPECT_EQ(written(*r.recording), text);
  EXPECT_EQ(r.recording->truth->trackedFromRoom.back().theta,
            original.truth->trackedFromRoom.back().theta);

  std::vector<std::string> lines = linesOf(text);
  for (std::string& line : lines) {
    const size_t at = line.find("\"tracked_from_room\":[\"");
    if (at != std::string::npos) line.insert(at + 22, "nan,");
  }
  r = readText(joined(lines));
  EXPECT_FALSE(r.recording.has_value());
  EXPECT_NE(r.error.find("\"tracked_from_room\" holds a value"), std::string::npos) << r.error;
}

// Each damaged file is refused with the line that is wrong named in the message.
TEST(RecordingIo, BadInputNamesTheLine) {
  std::string text = written(*testing::shortScenario().mapping);
  std::vector<std::string> lines = linesOf(text);
  ASSERT_GT(lines.size(), 20u);
  const size_t n = lines.size();
  size_t frameLine = 0, planeLine = 0;
  for (size_t i = 0; i < n; ++i) {
    if (!frameLine && lines[i].find("\"type\":\"frame\"") != std::string::npos) frameLine = i;
    if (!planeLine && lines[i].find("\"type\":\"plane\"") != std::string::npos) planeLine = i;
  }
  ASSERT_GT(frameLine, 0u);
  ASSERT_GT(planeLine, 0u);

  // The file with `from` in one line replaced by `to`; and the start of an error naming a line.
  auto edited = [&](size_t line, const std::string& from, const std::string& to) {
    auto bad = lines;
    const size_t at = bad[line].find(from);
    EXPECT_NE(at, std::string::npos) << from;
    bad[line].replace(at, from.size(), to);
    return joined(bad);
  };
  auto at = [](size_t line, const std::string& what) {
    return "line " + std::to_string(line) + ": " + what;
  };
  const std::string noEnd = joined({lines.begin(), lines.end() - 1});
  auto noPoints = lines;  // the frame's feature-point declarations left out
  noPoints.erase(noPoints.begin() + static_cast<long>(frameLine) - 1);
  ASSERT_NE(noPoints[frameLine - 1].find("\"type\":\"frame\""), std::string::npos);
  const struct {
    const char* name;
    std::string text;
    std::string expect;  // a part of the error
  } cases[] = {
      {"cut mid-line", noEnd.substr(0, noEnd.size() - 40), at(n - 1, "truncated")},
      {"no end line", noEnd, at(n - 1, "truncated")},
      {"corrupt line",
       edited(frameLine, lines[frameLine].substr(lines[frameLine].size() / 2), "#garbage"),
       at(frameLine + 1, "not a valid JSON object")},
      {"newer version", edited(0, "\"version\":1", "\"version\":2"),
       at(1, "recording version 2 is newer")},
      {"not a recording", "{\"format\":\"something\"}\n", at(1, "not an omra recording")},
      {"empty", "", at(1, "empty file")},
      {"matrix of 17", edited(frameLine, "\"transform\":[", "\"transform\":[1,"),
       at(frameLine + 1, "frame: \"transform\" must hold 16")},
      {"bad alignment", edited(planeLine, "\"alignment\":\"", "\"alignment\":\"diagonal-"),
       at(planeLine + 1, "plane")},
      {"unknown event", edited(frameLine, "{", "{\"type\":\"teleport\"}\n{"),
       at(frameLine + 1, "unknown event type")},
      {"unknown points", joined(noPoints),
       at(frameLine, "frame 0 refers to unknown feature point")},
      {"after the end", text + "{\"type\":\"frame\"}\n", at(n + 1, "content after the end line")},
      {"wrong frame count", edited(n - 1, lines.back(), "{\"type\":\"end\",\"frames\":3}"),
       at(n, "end line counts 3")},
      // A deep value and then more keys: refused before a document is built.
      {"deeply nested", edited(frameLine, "{", "{\"x\":" + std::string(100000, '[') + "],"),
       at(frameLine + 1, "not a valid JSON object (corrupt line: JSON nested deeper than 64")},
      {"not utf-8", edited(planeLine, "\"type\":\"plane\"", "\"type\":\"plane\xff\""),
       at(planeLine + 1, "not a valid JSON object (corrupt line: invalid UTF-8")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingReadResult r = readText(c.text);
    EXPECT_FALSE(r.recording.has_value());
    EXPECT_NE(r.error.find(c.expect), std::string::npos) << r.error;
  }
}

TEST(YawTransform, ComposeInverseAndText) {
  YawTransform a{1.5, -0.2, 3.25, 0.7}, b{-2, 0.1, 0.5, -2.9};
  Vec3 p{0.3, 1.2, -4};
  EXPECT_NEAR((a.compose(b).apply(p) - a.apply(b.apply(p))).norm(), 0, 1e-12);
  EXPECT_NEAR((a.inverse().apply(a.apply(p)) - p).norm(), 0, 1e-12);
  // R(theta) rows (cos, 0, sin), (0, 1, 0), (-sin, 0, cos).
  YawTransform quarter{0, 0, 0, M_PI / 2};
  Vec3 x = quarter.apply({1, 0, 0});
  EXPECT_NEAR(x.z, -1, 1e-12);
  EXPECT_NEAR(quarter.apply({0, 0, 1}).x, 1, 1e-12);
  auto back = YawTransform::fromText(a.toText());
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->tx, a.tx);
  EXPECT_EQ(back->theta, a.theta);
  for (const char* bad : {"", "1,2,3", "1,2,3,4,5", "1,2,x,4", "1,2,3,nan", "1,2,3,4 "}) {
    EXPECT_FALSE(YawTransform::fromText(bad).has_value()) << bad;
  }
}

// Transform texts and recordings do not follow a host's comma-decimal locale.
TEST(YawTransform, TextIgnoresTheLocale) {
  OMRA_UNDER_COMMA_LOCALE(locale);
  const YawTransform a{0.1, -2.5, 3.75, 0.7};
  EXPECT_EQ(a.toText(), "0.1,-2.5,3.75,0.7");
  auto back = YawTransform::fromText("0.1,-2.5,3.75,0.7");
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->tx, 0.1);
  EXPECT_EQ(back->ty, -2.5);
  EXPECT_EQ(back->tz, 3.75);
}

}  // namespace
}  // namespace omra::sim
