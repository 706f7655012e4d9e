#include "sim/recording_io.h"

#include <gtest/gtest.h>

#include <sstream>

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

// Written, read and written again: the same text, and the same values in memory.
TEST(RecordingIo, RoundTrip) {
  const Recording& original = *testing::shortScenario().localization;
  std::string text = written(original);
  RecordingReadResult r = readText(text);
  ASSERT_TRUE(r.recording.has_value()) << r.error;
  EXPECT_EQ(written(*r.recording), text);
  const Recording& back = *r.recording;
  EXPECT_EQ(back.header.role, "localization");
  EXPECT_EQ(back.header.sessionSeed, original.header.sessionSeed);
  ASSERT_EQ(back.events.size(), original.events.size());
  ASSERT_TRUE(back.truth.has_value());
  EXPECT_EQ(back.truth->sessionFromRoom.theta, original.truth->sessionFromRoom.theta);
  EXPECT_EQ(back.truth->room.objects.size(), original.truth->room.objects.size());
  for (size_t i = 0; i < back.events.size(); ++i) {
    ASSERT_EQ(back.events[i].index(), original.events[i].index());
    if (const auto* f = std::get_if<RecordedFrame>(&back.events[i])) {
      const auto& g = std::get<RecordedFrame>(original.events[i]);
      EXPECT_EQ(f->index, g.index);
      EXPECT_EQ(f->pointIds, g.pointIds);
      EXPECT_EQ(f->activation.values, g.activation.values);
      for (size_t c = 0; c < 4; ++c) {
        EXPECT_EQ(f->worldFromCamera.columns[c].x, g.worldFromCamera.columns[c].x);
        EXPECT_EQ(f->worldFromCamera.columns[c].z, g.worldFromCamera.columns[c].z);
      }
      for (uint64_t id : f->pointIds) EXPECT_EQ(back.points.at(id).y, original.points.at(id).y);
      ASSERT_EQ(f->detections.size(), g.detections.size());
      for (size_t k = 0; k < f->detections.size(); ++k) {
        EXPECT_EQ(f->detections[k].score, g.detections[k].score);
        EXPECT_EQ(f->detections[k].yMax, g.detections[k].yMax);
      }
    } else {
      const auto& p = std::get<PlaneEvent>(back.events[i]);
      const auto& q = std::get<PlaneEvent>(original.events[i]);
      EXPECT_EQ(p.kind, q.kind);
      EXPECT_EQ(p.anchor.identifier, q.anchor.identifier);
      EXPECT_EQ(p.anchor.boundaryVertices.has_value(), q.anchor.boundaryVertices.has_value());
    }
  }
  EXPECT_NE(back.frame(5), nullptr);
  EXPECT_EQ(back.frame(100000), nullptr);
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

  struct Case {
    const char* name;
    std::string text;
    std::string expect;  // a part of the error
  };
  std::vector<Case> cases;
  // Cut in the middle of the last frame line.
  std::string cut = joined({lines.begin(), lines.end() - 1});
  cut.resize(cut.size() - 40);
  cases.push_back({"cut mid-line", cut, "line " + std::to_string(n - 1) + ": truncated"});
  // Cut at a line boundary: the end line is missing.
  cases.push_back({"no end line", joined({lines.begin(), lines.end() - 1}),
                   "line " + std::to_string(n - 1) + ": truncated"});
  {
    auto bad = lines;
    bad[frameLine] = bad[frameLine].substr(0, bad[frameLine].size() / 2) + "#garbage";
    cases.push_back({"corrupt line", joined(bad),
                     "line " + std::to_string(frameLine + 1) + ": not a valid JSON object"});
  }
  {
    auto bad = lines;
    auto at = bad[0].find("\"version\":1");
    ASSERT_NE(at, std::string::npos);
    bad[0].replace(at, 11, "\"version\":2");
    cases.push_back({"newer version", joined(bad), "line 1: recording version 2 is newer"});
  }
  cases.push_back(
      {"not a recording", "{\"format\":\"something\"}\n", "line 1: not an omra recording"});
  cases.push_back({"empty", "", "line 1: empty file"});
  {
    auto bad = lines;
    auto at = bad[frameLine].find("\"transform\":[");
    bad[frameLine].replace(at, 13, "\"transform\":[1,");
    cases.push_back(
        {"matrix of 17", joined(bad),
         "line " + std::to_string(frameLine + 1) + ": frame: \"transform\" must hold 16"});
  }
  {
    auto bad = lines;
    auto at = bad[planeLine].find("\"alignment\":\"");
    bad[planeLine].replace(at, 13, "\"alignment\":\"diagonal-");
    cases.push_back(
        {"bad alignment", joined(bad), "line " + std::to_string(planeLine + 1) + ": plane"});
  }
  {
    auto bad = lines;
    bad.insert(bad.begin() + static_cast<long>(frameLine), "{\"type\":\"teleport\"}");
    cases.push_back({"unknown event", joined(bad),
                     "line " + std::to_string(frameLine + 1) + ": unknown event type"});
  }
  {
    // A frame whose feature points were never declared.
    auto bad = lines;
    bad.erase(bad.begin() + static_cast<long>(frameLine) - 1);
    if (bad[frameLine - 1].find("\"type\":\"frame\"") != std::string::npos) {
      cases.push_back(
          {"unknown points", joined(bad),
           "line " + std::to_string(frameLine) + ": frame 0 refers to unknown feature point"});
    }
  }
  cases.push_back({"after the end", text + "{\"type\":\"frame\"}\n",
                   "line " + std::to_string(n + 1) + ": content after the end line"});
  {
    auto bad = lines;
    bad.back() = "{\"type\":\"end\",\"frames\":3}";
    cases.push_back(
        {"wrong frame count", joined(bad), "line " + std::to_string(n) + ": end line counts 3"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingReadResult r = readText(c.text);
    EXPECT_FALSE(r.recording.has_value());
    EXPECT_NE(r.error.find(c.expect), std::string::npos) << r.error;
  }
}

TEST(RecordingIo, Files) {
  std::string path = std::string(OMRA_BINARY_DIR) + "/sim_recording_io_test.jsonl";
  ASSERT_EQ(writeRecordingFile(*testing::shortScenario().mapping, path), "");
  RecordingReadResult r = readRecordingFile(path);
  ASSERT_TRUE(r.recording.has_value()) << r.error;
  EXPECT_EQ(r.recording->frameCount(), testing::shortScenario().mapping->frameCount());
  std::remove(path.c_str());
  EXPECT_NE(readRecordingFile(path).error.find("cannot open"), std::string::npos);
  EXPECT_NE(writeRecordingFile(*testing::shortScenario().mapping, "/nonexistent-dir/x.jsonl"), "");
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

}  // namespace
}  // namespace omra::sim
