#include "src/platform/config_loader.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <tuple>

#include "src/platform/fixed_location_source.h"
#include "tests/common/temp_dir_testutil.h"

namespace omra {
namespace {

EnvLookup envOf(std::map<std::string, std::string> vars) {
  return [vars](const std::string& name) -> std::optional<std::string> {
    auto it = vars.find(name);
    if (it == vars.end()) return std::nullopt;
    return it->second;
  };
}

Config fromEnv(std::map<std::string, std::string> vars, std::string* error) {
  auto c = loadConfig(envOf(std::move(vars)), error, "");
  return c.value_or(Config{});
}

TEST(ConfigLoaderTest, DefaultsRunLocally) {
  std::string error = "x";
  auto c = loadConfig(envOf({}), &error, "");
  ASSERT_TRUE(c.has_value());
  EXPECT_EQ(error, "");
  EXPECT_EQ(std::tie(c->endpoints.mapsBeta, c->recordStore, c->metricsSink),
            std::tuple("http://127.0.0.1:8080", "backend", "none"));
  EXPECT_FALSE(c->bundleIdentifier.has_value());
  EXPECT_EQ(c->httpIdleTimeoutSeconds, 60);
  EXPECT_EQ(std::tie(c->recordOutbox, c->recordOutboxMaxMegabytes, c->recordFlushTimeoutSeconds),
            std::tuple("", 512.0, 2.0));
}

TEST(ConfigLoaderTest, EnvironmentValues) {
  std::string error;
  Config c =
      fromEnv({{"OMRA_MAPS_HOST", "https://maps.example.com/"},
               {"OMRA_MAPS_PROD_HOST", "https://prod.example.com:8443"},
               {"OMRA_IMAGE_MATCHER_HOST", "http://127.0.0.1:9000"},
               {"OMRA_LINEAR_OPTIMIZER_BETA_HOST", "http://lo-beta"},
               {"OMRA_RECORD_STORE", "dynamodb:http://127.0.0.1:4567"},
               {"OMRA_METRICS_SINK", "cloudwatch"},
               {"AWS_REGION", "eu-west-1"},
               {"OMRA_AWS_REGION", "eu-central-1"},
               {"AWS_ACCESS_KEY_ID", "AKID"},
               {"AWS_SECRET_ACCESS_KEY", "secret"},
               {"AWS_SESSION_TOKEN", "token"},
               {"OMRA_MODEL_PATH", "/models/ssd.onnx"},
               {"OMRA_BUNDLE_ID", " com.example.app "},
               {"OMRA_SUPPORTED_ORIENTATIONS", "portrait, UIInterfaceOrientationLandscapeLeft"},
               {"OMRA_LOCATION", "-122.4,37.8,12.5,5,3"},
               {"OMRA_HTTP_IDLE_TIMEOUT", "2.5"},
               {"OMRA_RECORD_OUTBOX", "/var/lib/app/outbox.db"},
               {"OMRA_RECORD_OUTBOX_MAX_MB", "64"},
               {"OMRA_RECORD_FLUSH_TIMEOUT", "0.5"}},
              &error);
  EXPECT_EQ(error, "");
  const auto& e = c.endpoints;
  // Trailing slash dropped; a specific host beats the shared one; unset ones keep the default.
  EXPECT_EQ(std::tie(e.mapsBeta, e.mapsProd),
            std::tuple("https://maps.example.com", "https://prod.example.com:8443"));
  EXPECT_EQ(std::tie(e.imageMatcherBeta, e.imageMatcherProd),
            std::tuple("http://127.0.0.1:9000", "http://127.0.0.1:9000"));
  EXPECT_EQ(std::tie(e.linearOptimizerBeta, e.linearOptimizerProd),
            std::tuple("http://lo-beta", "http://127.0.0.1:8080"));
  EXPECT_EQ(std::tie(c.recordStore, c.metricsSink, c.modelPath),
            std::tuple("dynamodb:http://127.0.0.1:4567", "cloudwatch", "/models/ssd.onnx"));
  EXPECT_EQ(std::tie(c.aws.region, c.aws.accessKeyId, c.aws.secretAccessKey, c.aws.sessionToken),
            std::tuple("eu-central-1", "AKID", "secret", "token"));
  EXPECT_EQ(c.bundleIdentifier, "com.example.app");
  EXPECT_EQ(c.supportedOrientations,
            (std::vector<std::string>{"UIInterfaceOrientationPortrait",
                                      "UIInterfaceOrientationLandscapeLeft"}));
  EXPECT_EQ(std::tie(c.longitude, c.latitude, c.altitude, c.horizontalAccuracy, c.verticalAccuracy),
            std::tuple(-122.4, 37.8, 12.5, 5.0, 3.0));
  EXPECT_EQ(c.httpIdleTimeoutSeconds, 2.5);
  EXPECT_EQ(std::tie(c.recordOutbox, c.recordOutboxMaxMegabytes, c.recordFlushTimeoutSeconds),
            std::tuple("/var/lib/app/outbox.db", 64.0, 0.5));
}

TEST(ConfigLoaderTest, RecordStoreTexts) {
  const std::vector<std::pair<std::string, std::string>> accepted = {
      {"backend", "backend"},
      {"backend:https://maps.example.com/beta/", "backend:https://maps.example.com/beta"},
      {" memory ", "memory"},
      {"sqlite:/tmp/r.db", "sqlite:/tmp/r.db"},
      {"dynamodb:http://127.0.0.1:4567", "dynamodb:http://127.0.0.1:4567"},
  };
  for (const auto& [text, stored] : accepted) {
    std::string error;
    EXPECT_EQ(fromEnv({{"OMRA_RECORD_STORE", text}}, &error).recordStore, stored) << error;
  }
}

TEST(ConfigLoaderTest, OutboxLivesInTheUserStateFolderPerApplication) {
  Config app;
  app.bundleIdentifier = "com.example/../app";
  struct Case {
    const char* name;
    std::map<std::string, std::string> vars;
    const Config* config;
    std::optional<std::string> path;
  };
  const Config none;
  const std::vector<Case> cases = {
      {"XDG_STATE_HOME",
       {{"XDG_STATE_HOME", "/state"}, {"HOME", "/home/u"}},
       &none,
       "/state/omrakit/default/record-outbox.db"},
      {"HOME only",
       {{"HOME", "/home/u"}},
       &app,
       "/home/u/.local/state/omrakit/com.example_.._app/record-outbox.db"},
      {"empty XDG_STATE_HOME",
       {{"XDG_STATE_HOME", " "}, {"HOME", "/home/u"}},
       &none,
       "/home/u/.local/state/omrakit/default/record-outbox.db"},
      {"neither", {}, &none, std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(defaultRecordOutboxPath(*c.config, envOf(c.vars)), c.path) << c.name;
  }
}

TEST(ConfigLoaderTest, BadValuesGiveAClearError) {
  struct Case {
    const char* key;
    const char* value;
    const char* mentions;
  };
  const std::vector<Case> cases = {
      {"OMRA_MAPS_HOST", "maps.example.com", "OMRA_MAPS_HOST"},
      {"OMRA_MAPS_BETA_HOST", "ftp://x", "http://"},
      {"OMRA_IMAGE_MATCHER_PROD_HOST", "http://", "OMRA_IMAGE_MATCHER_PROD_HOST"},
      {"OMRA_LINEAR_OPTIMIZER_HOST", "http://a b", "OMRA_LINEAR_OPTIMIZER_HOST"},
      {"OMRA_RECORD_STORE", "postgres:x", "sqlite:PATH"},
      {"OMRA_RECORD_STORE", "sqlite:", "OMRA_RECORD_STORE"},
      {"OMRA_RECORD_STORE", "dynamodb:localhost", "OMRA_RECORD_STORE"},
      {"OMRA_METRICS_SINK", "statsd", "cloudwatch"},
      {"OMRA_METRICS_SINK", "file:", "OMRA_METRICS_SINK"},
      {"AWS_REGION", "US East", "region"},
      {"OMRA_SUPPORTED_ORIENTATIONS", "portrait,sideways", "sideways"},
      {"OMRA_LOCATION", "1", "longitude,latitude"},
      {"OMRA_LOCATION", "1,2,3,4,5,6", "OMRA_LOCATION"},
      {"OMRA_LOCATION", "1,north", "OMRA_LOCATION"},
      {"OMRA_LOCATION", "181,0", "longitude"},
      {"OMRA_LOCATION", "0,-90.5", "latitude"},
      {"OMRA_LOCATION", "nan,0", "OMRA_LOCATION"},
      {"OMRA_HTTP_IDLE_TIMEOUT", "0", "OMRA_HTTP_IDLE_TIMEOUT"},
      {"OMRA_HTTP_IDLE_TIMEOUT", "10s", "OMRA_HTTP_IDLE_TIMEOUT"},
      {"OMRA_HTTP_IDLE_TIMEOUT", "inf", "OMRA_HTTP_IDLE_TIMEOUT"},
      {"OMRA_RECORD_STORE", "backend:maps.example.com", "backend:http(s)://"},
      {"OMRA_RECORD_STORE", "backends", "OMRA_RECORD_STORE"},
      {"OMRA_RECORD_OUTBOX_MAX_MB", "0.5", "OMRA_RECORD_OUTBOX_MAX_MB"},
      {"OMRA_RECORD_OUTBOX_MAX_MB", "lots", "MiB"},
      {"OMRA_RECORD_FLUSH_TIMEOUT", "-1", "OMRA_RECORD_FLUSH_TIMEOUT"},
      {"OMRA_RECORD_FLUSH_TIMEOUT", "nan", "seconds"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.key) + "=" + c.value);
    std::string error;
    EXPECT_FALSE(loadConfig(envOf({{c.key, c.value}}), &error, "").has_value());
    EXPECT_NE(error.find(c.mentions), std::string::npos) << error;
  }
}

TEST(ConfigLoaderTest, FileThenEnvironment) {
  const testing::ScopedTempDir dir("omra-config");
  const std::string file = dir.file("config.json");
  std::ofstream(file) << R"({
    "mapsHost": "https://file.example.com",
    "metricsSink": "stdout",
    "bundleIdentifier": "com.file.app",
    "supportedOrientations": ["landscapeRight"],
    "location": {"longitude": 2.35, "latitude": 48.85},
    "httpIdleTimeoutSeconds": 30,
    "recordOutbox": "/data/outbox.db",
    "recordOutboxMaxMegabytes": 100,
    "recordFlushTimeoutSeconds": 5
  })";
  std::string error;
  // The default file name is used when OMRA_CONFIG is unset.
  auto c = loadConfig(envOf({{"OMRA_METRICS_SINK", "none"}}), &error, file);
  ASSERT_TRUE(c.has_value()) << error;
  EXPECT_EQ(c->endpoints.mapsProd, "https://file.example.com");
  EXPECT_EQ(c->metricsSink, "none");  // the environment wins
  EXPECT_EQ(c->bundleIdentifier, "com.file.app");
  EXPECT_EQ(c->supportedOrientations,
            (std::vector<std::string>{"UIInterfaceOrientationLandscapeRight"}));
  EXPECT_EQ(c->latitude, 48.85);
  EXPECT_FALSE(c->altitude.has_value());
  EXPECT_EQ(c->httpIdleTimeoutSeconds, 30);
  EXPECT_EQ(std::tie(c->recordOutbox, c->recordOutboxMaxMegabytes, c->recordFlushTimeoutSeconds),
            std::tuple("/data/outbox.db", 100.0, 5.0));

  // OMRA_CONFIG names the file, and must exist.
  c = loadConfig(envOf({{"OMRA_CONFIG", file}}), &error, "nonexistent.json");
  ASSERT_TRUE(c.has_value()) << error;
  EXPECT_EQ(c->metricsSink, "stdout");
  EXPECT_FALSE(loadConfig(envOf({{"OMRA_CONFIG", file + ".missing"}}), &error, "").has_value());
  EXPECT_NE(error.find("does not exist"), std::string::npos);
}

TEST(ConfigLoaderTest, BadFiles) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{", "not valid JSON"},
      {"[1]", "one JSON object"},
      {R"({"mapHost": "http://x"})", "unknown configuration key \"mapHost\""},
      {R"({"mapsHost": null})", "mapsHost: expected a string"},
      {R"({"recordStore": 5})", "recordStore: expected a string"},
      {R"({"supportedOrientations": [1]})", "supportedOrientations"},
      {R"({"location": {"latitude": 1}})", "location"},
      {R"({"location": {"longitude": "1", "latitude": 1}})", "location.longitude"},
      {R"({"location": true})", "location"},
      {R"({"httpIdleTimeoutSeconds": "60"})", "httpIdleTimeoutSeconds"},
      {R"({"recordOutbox": ""})", "recordOutbox: must not be empty"},
      {R"({"recordOutboxMaxMegabytes": "64"})", "recordOutboxMaxMegabytes"},
      {R"({"recordFlushTimeoutSeconds": 7200})", "recordFlushTimeoutSeconds"},
  };
  for (const auto& [text, mentions] : cases) {
    SCOPED_TRACE(text);
    Config c;
    auto error = applyConfigJson(text, c);
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->find(mentions), std::string::npos) << *error;
  }
}

TEST(FixedLocationSourceTest, FromConfig) {
  Config c;
  EXPECT_EQ(FixedLocationSource::fromConfig(c), nullptr);
  c.longitude = 10;
  EXPECT_EQ(FixedLocationSource::fromConfig(c), nullptr);  // a latitude is needed too
  c.latitude = 20;
  c.horizontalAccuracy = 4;
  auto source = FixedLocationSource::fromConfig(c);
  ASSERT_NE(source, nullptr);
  EXPECT_TRUE(source->authorized());
  std::vector<Location> seen;
  source->start([&](const Location& l) { seen.push_back(l); }, [](double) { FAIL(); });
  source->stop();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(std::tie(seen[0].longitude, seen[0].latitude, seen[0].horizontalAccuracy,
                     seen[0].verticalAccuracy),
            std::tuple(10.0, 20.0, 4.0, 0.0));
}

}  // namespace
}  // namespace omra
