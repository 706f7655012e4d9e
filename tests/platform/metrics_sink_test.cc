#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "src/platform/asio_dispatcher.h"
#include "src/platform/cloudwatch_metrics_sink.h"
#include "src/platform/json_lines_metrics_sink.h"
#include "src/platform/memory_logger.h"
#include "src/platform/metric_format.h"
#include "src/platform/metrics_sink_factory.h"
#include "tests/common/temp_dir_testutil.h"
#include "tests/platform/loopback_server_testutil.h"

namespace omra {
namespace {

using namespace std::chrono_literals;

MetricDatum datum(std::string name, double value, std::string unit,
                  std::vector<std::pair<std::string, std::string>> dims = {}) {
  MetricDatum d;
  d.metricName = std::move(name);
  d.value = value;
  d.unit = std::move(unit);
  d.dimensions = std::move(dims);
  d.timestamp = 1795305600.25;  // 2026-11-22T00:00:00.250Z
  return d;
}

TEST(MetricFormatTest, Texts) {
  EXPECT_EQ(iso8601Millis(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(iso8601Millis(1795305600.25), "2026-11-22T00:00:00.250Z");
  EXPECT_EQ(iso8601Millis(59.9996), "1970-01-01T00:01:00.000Z");  // rounding carries
  EXPECT_EQ(shortestDouble(1), "1");
  EXPECT_EQ(shortestDouble(0.1), "0.1");
  EXPECT_EQ(shortestDouble(2.5e-7), "2.5e-07");
  EXPECT_EQ(formEncode("OmraKit.Relocalization Time/SU&x=1~"),
            "OmraKit.Relocalization%20Time%2FSU%26x%3D1~");
  EXPECT_EQ(formEncode("\xc3\xa9"), "%C3%A9");
}

TEST(CloudWatchBodyTest, QueryProtocolMembers) {
  std::vector<MetricDatum> data = {
      datum("OmraKit.AssetSaved", 1, "Count", {{"devKey", "abc"}}),
      datum("OmraKit.AssetSaved", 1.5, "Seconds"),
  };
  EXPECT_EQ(CloudWatchMetricsSink::requestBody("OmraKit", data),
            "Action=PutMetricData&Version=2010-08-01&Namespace=OmraKit"
            "&MetricData.member.1.MetricName=OmraKit.AssetSaved"
            "&MetricData.member.1.Value=1&MetricData.member.1.Unit=Count"
            "&MetricData.member.1.Timestamp=2026-11-22T00%3A00%3A00.250Z"
            "&MetricData.member.1.Dimensions.member.1.Name=devKey"
            "&MetricData.member.1.Dimensions.member.1.Value=abc"
            "&MetricData.member.2.MetricName=OmraKit.AssetSaved"
            "&MetricData.member.2.Value=1.5&MetricData.member.2.Unit=Seconds"
            "&MetricData.member.2.Timestamp=2026-11-22T00%3A00%3A00.250Z");
  MetricDatum unstamped = datum("OmraKit.AssetSaved", 1, "Count");
  unstamped.timestamp = 0;
  EXPECT_EQ(CloudWatchMetricsSink::requestBody("OmraKit", {unstamped}).find("Timestamp"),
            std::string::npos);
  Json line = Json::parse(JsonLinesMetricsSink::line("OmraKit", unstamped));
  EXPECT_GT(line["timestamp"].get<std::string>(), "2026-");  // stamped now, not 1970
  EXPECT_EQ(CloudWatchMetricsSink::requestBody("OmraKit", {}),
            "Action=PutMetricData&Version=2010-08-01&Namespace=OmraKit");
}

CloudWatchSettings settingsFor(const std::string& endpoint) {
  CloudWatchSettings s;
  s.accessKeyId = "AKID";
  s.secretAccessKey = "secret";
  s.endpoint = endpoint;
  return s;
}

std::string runCommand(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  if (pclose(p) != 0) return {};
  return out;
}

std::string field(const std::string& auth, const std::string& name) {
  size_t at = auth.find(name + "=");
  if (at == std::string::npos) return {};
  at += name.size() + 1;
  return auth.substr(at, auth.find(',', at) - at);
}

// The signature curl computes must equal the one the AWS SDK's signer computes for the same
// request, date and credentials.
class CloudWatchSigningTest : public ::testing::TestWithParam<std::string> {};

TEST_P(CloudWatchSigningTest, MatchesTheAwsSdkSigner) {
  const std::string peers =
      runCommand(std::string(OMRA_SOURCE_DIR) + "/scripts/npm-peers.sh 2>/dev/null");
  if (peers.empty() || runCommand("node --version 2>/dev/null").empty()) {
    GTEST_SKIP() << "node and the npm peers are needed (scripts/npm-peers.sh)";
  }
  const std::string sessionToken = GetParam();

  std::promise<httplib::Request> captured;
  auto request = captured.get_future();
  testing::LoopbackServer server;
  server.server().Post("/", [&](const httplib::Request& req, httplib::Response& res) {
    captured.set_value(req);
    res.set_content("<PutMetricDataResponse/>", "text/xml");
  });
  const std::string base = server.start();

  AsioDispatcher dispatcher;
  CloudWatchSettings settings = settingsFor(base);
  settings.region = "eu-west-2";
  settings.accessKeyId = "AKIDEXAMPLE";
  settings.secretAccessKey = "wJalrXUtnFEMI/K7MDENG+bPxRfiCYEXAMPLEKEY";
  settings.sessionToken = sessionToken;
  {
    CloudWatchMetricsSink sink(dispatcher, std::make_shared<MemoryLogger>(), settings);
    EXPECT_EQ(sink.endpoint(), base + "/");
    sink.putMetricData("OmraKit", {datum("OmraKit.RelocalizationTime.SU", 2.75, "Seconds",
                                         {{"devKey", "0123456789abcdef"}})});
    ASSERT_EQ(request.wait_for(5s), std::future_status::ready);
  }
  const httplib::Request req = request.get();
  EXPECT_EQ(req.target, "/");  // nothing in the URL
  EXPECT_NE(req.body.find("MetricData.member.1.Value=2.75"), std::string::npos);
  EXPECT_EQ(req.get_header_value("X-Amz-Security-Token"), sessionToken);
  const std::string auth = req.get_header_value("Authorization");
  const std::string amzDate = req.get_header_value("X-Amz-Date");
  ASSERT_EQ(amzDate.size(), 16u) << amzDate;
  EXPECT_EQ(field(auth, "Credential"),
            "AKIDEXAMPLE/" + amzDate.substr(0, 8) + "/eu-west-2/monitoring/aws4_request");

  Json input = {{"method", "POST"},
                {"host", req.get_header_value("Host")},
                {"path", "/"},
                {"body", req.body},
                {"region", "eu-west-2"},
                {"service", "monitoring"},
                {"accessKeyId", settings.accessKeyId},
                {"secretAccessKey", settings.secretAccessKey}};
  if (!sessionToken.empty()) input["sessionToken"] = sessionToken;
  input["amzDate"] = amzDate;
  Json headers = Json::object();
  std::istringstream signedHeaders(field(auth, "SignedHeaders"));
  std::string name;
  while (std::getline(signedHeaders, name, ';')) {
    if (name == "host" || name == "x-amz-date" || name == "x-amz-security-token") continue;
    headers[name] = req.get_header_value(name);
  }
  input["headers"] = headers;
  const testing::ScopedTempDir dir("omra-sigv4");
  std::ofstream(dir.file("input.json")) << input.dump();
  const std::string expected =
      runCommand("node " + std::string(OMRA_SOURCE_DIR) + "/tests/platform/sigv4_sign.js '" +
                 peers.substr(0, peers.find('\n')) + "' < '" + dir.file("input.json") + "'");
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(auth, expected);
}

INSTANTIATE_TEST_SUITE_P(Credentials, CloudWatchSigningTest,
                         ::testing::Values("", "FQoGZXIvYXdzEXAMPLE//token+with/slashes="));

TEST(CloudWatchSinkTest, FailuresAreLoggedNotReported) {
  testing::RecordingServer server({{403, "<Error>InvalidClientTokenId</Error>", "text/xml"}});
  AsioDispatcher dispatcher;
  auto logger = std::make_shared<MemoryLogger>();
  {
    CloudWatchMetricsSink sink(dispatcher, logger, settingsFor(server.origin()));
    sink.putMetricData("OmraKit", {datum("OmraKit.AssetSaved", 1, "Count")});
    for (int i = 0; i < 500 && !logger->contains("403"); ++i) std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(logger->contains("CloudWatch PutMetricData failed: HTTP 403"));

  // Without credentials nothing is sent.
  logger->clear();
  CloudWatchMetricsSink unsigned_(dispatcher, logger, CloudWatchSettings{});
  unsigned_.putMetricData("OmraKit", {});
  EXPECT_TRUE(logger->contains("no AWS credentials"));
}

TEST(JsonLinesMetricsSinkTest, OneObjectPerDatumFromManyThreads) {
  const testing::ScopedTempDir dir("omra-metrics");
  const std::string path = dir.file("metrics.jsonl");
  auto logger = std::make_shared<MemoryLogger>();
  {
    JsonLinesMetricsSink sink(path, logger);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&sink] {
        for (int i = 0; i < 50; ++i) {
          sink.putMetricData("OmraKit", {datum("OmraKit.AssetSaved", 1, "Count", {{"devKey", "k"}}),
                                         datum("OmraKit.AssetSaved", 1, "Count")});
        }
      });
    }
    for (auto& t : threads) t.join();
  }
  std::ifstream in(path);
  std::string line;
  int lines = 0, withDim = 0;
  while (std::getline(in, line)) {
    Json j = Json::parse(line, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << line;
    EXPECT_EQ(j["namespace"], "OmraKit");
    EXPECT_EQ(j["unit"], "Count");
    EXPECT_EQ(j["timestamp"], "2026-11-22T00:00:00.250Z");
    if (j["dimensions"].contains("devKey")) ++withDim;
    ++lines;
  }
  EXPECT_EQ(lines, 400);
  EXPECT_EQ(withDim, 200);
  EXPECT_TRUE(logger->lines().empty());

  EXPECT_EQ(JsonLinesMetricsSink::line("OmraKit", datum("m", std::nan(""), "Seconds")),
            R"({"namespace":"OmraKit","metricName":"m","value":null,"unit":"Seconds",)"
            R"("timestamp":"2026-11-22T00:00:00.250Z","dimensions":{}})");

  JsonLinesMetricsSink broken("/nonexistent-dir/x/metrics.jsonl", logger);
  broken.putMetricData("OmraKit", {datum("m", 1, "Count")});
  EXPECT_TRUE(logger->contains("cannot be opened"));
}

TEST(MetricsSinkFactoryTest, ChoosesBySetting) {
  AsioDispatcher dispatcher;
  auto logger = std::make_shared<MemoryLogger>();
  Config c;
  c.metricsSink = "none";
  EXPECT_EQ(makeMetricsSink(c, dispatcher, logger), nullptr);
  c.metricsSink = "stdout";
  EXPECT_NE(dynamic_cast<JsonLinesMetricsSink*>(makeMetricsSink(c, dispatcher, logger).get()),
            nullptr);
  c.metricsSink = "cloudwatch:http://127.0.0.1:9";
  auto cw = makeMetricsSink(c, dispatcher, logger);
  ASSERT_NE(dynamic_cast<CloudWatchMetricsSink*>(cw.get()), nullptr);
  EXPECT_EQ(static_cast<CloudWatchMetricsSink*>(cw.get())->endpoint(), "http://127.0.0.1:9/");
  c.metricsSink = "cloudwatch";
  c.aws.region = "ap-south-1";
  cw = makeMetricsSink(c, dispatcher, logger);
  EXPECT_EQ(static_cast<CloudWatchMetricsSink*>(cw.get())->endpoint(),
            "https://monitoring.ap-south-1.amazonaws.com/");
}

}  // namespace
}  // namespace omra
