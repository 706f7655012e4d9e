#include "src/mapping/transform_answer.h"

#include <gtest/gtest.h>

namespace omra {
namespace {

TEST(MatchValue, WholeTextMustBeAFiniteNumber) {
  struct Case {
    const char* text;
    std::optional<float> value;
  };
  const Case cases[] = {
      {"0.42", 0.42f}, {"1", 1.0f}, {"+0.5", 0.5f}, {"-2e-3", -0.002f},
      {"", {}},        {"abc", {}}, {"0.42x", {}},  {" 0.42", {}},
      {"nan", {}},     {"inf", {}}, {"1e999", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(parseMatchValue(c.text), c.value);
  }
}

TEST(BestTransformAnswer, OutcomesByShape) {
  struct Case {
    const char* json;
    int kind;  // 0 no result, 1 answer, 2 malformed
  };
  const Case cases[] = {
      {R"({})", 0},
      {R"({"Localizer":"su_localizer","Transform":"1,2,3,4"})", 0},  // no MatchValue yet
      {R"([1,2])", 0},
      {R"({"MatchValue":"0.42","Localizer":"su_localizer_seeded","Transform":"1,0,2,0"})", 1},
      {R"({"MatchValue":0.42,"Localizer":"su_localizer","Transform":"1,2,3,4"})", 2},
      {R"({"MatchValue":"high","Localizer":"su_localizer","Transform":"1,2,3,4"})", 2},
      {R"({"MatchValue":"0.4","Transform":"1,2,3,4"})", 2},
      {R"({"MatchValue":"0.4","Localizer":null,"Transform":"1,2,3,4"})", 2},
      {R"({"MatchValue":"0.4","Localizer":"su_localizer"})", 2},
      {R"({"MatchValue":"0.4","Localizer":"su_localizer","Transform":[1,2,3,4]})", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    TransformAnswerOutcome outcome = readBestTransformAnswer(Json::parse(c.json));
    EXPECT_EQ(static_cast<int>(outcome.index()), c.kind);
    if (const auto* answer = std::get_if<BestTransformAnswer>(&outcome)) {
      EXPECT_EQ(answer->localizer, "su_localizer_seeded");
      EXPECT_EQ(answer->transform, "1,0,2,0");
      EXPECT_EQ(answer->matchValue, 0.42f);
    }
  }
}

TEST(TransformText, PiecesAndPrefixes) {
  struct Case {
    const char* text;
    bool ok;
    float tx, ty, tz, theta;
  };
  const Case cases[] = {
      {"1,0,2,0", true, 1, 0, 2, 0},
      {"1,,0,2,,0,", true, 1, 0, 2, 0},  // empty pieces dropped
      {" 1.5, -2,3e1,0.25", true, 1.5f, -2, 30, 0.25f},
      {"1abc,x,2,3", true, 1, 0, 2, 3},  // prefix read; non-numbers are 0
      {"1,2,3,4,5", true, 1, 2, 3, 4},   // extra numbers ignored
      {"1,2,3", false, 0, 0, 0, 0},
      {"", false, 0, 0, 0, 0},
      {",,,", false, 0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::optional<YawTransform> t = parseTransformText(c.text);
    ASSERT_EQ(t.has_value(), c.ok);
    if (!c.ok) continue;
    EXPECT_FLOAT_EQ(t->translation.x, c.tx);
    EXPECT_FLOAT_EQ(t->translation.y, c.ty);
    EXPECT_FLOAT_EQ(t->translation.z, c.tz);
    EXPECT_FLOAT_EQ(t->theta, c.theta);
  }
}

TEST(TransformText, AppliesTranslationAndYaw) {
  // 1,0,2,0 moves (1,1,1) to (2,1,3).
  Float3 p = applyYawTransform(*parseTransformText("1,0,2,0"), {1, 1, 1});
  EXPECT_FLOAT_EQ(p.x, 2);
  EXPECT_FLOAT_EQ(p.y, 1);
  EXPECT_FLOAT_EQ(p.z, 3);
  // A quarter turn moves (1,0,0) to about (0,0,-1): rows (c,0,s),(0,1,0),(-s,0,c).
  p = applyYawTransform(*parseTransformText("0,0,0,1.5707964"), {1, 0, 0});
  EXPECT_NEAR(p.x, 0, 1e-6);
  EXPECT_NEAR(p.z, -1, 1e-6);
  p = applyYawTransform(*parseTransformText("0,0,0,1.5707964"), {0, 0, 1});
  EXPECT_NEAR(p.x, 1, 1e-6);
}

}  // namespace
}  // namespace omra
