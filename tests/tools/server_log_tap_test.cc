// The runner's tap on an in-process omra-server's log: a localizer run that read no frames (a
// session whose records never arrived) reaches the tap as a warning, whatever is forwarded.
#include "tools/runner/server_log_tap.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

#include "server/server.h"
#include "src/platform/store/record_store_factory.h"

namespace omra::tools {
namespace {

using Json = nlohmann::json;

// Lines handed over from the server's threads.
struct Lines {
  std::mutex mutex;
  std::vector<std::string> lines;
  std::function<void(std::string_view)> sink() {
    return [this](std::string_view line) {
      std::lock_guard lock(mutex);
      lines.emplace_back(line);
    };
  }
  std::vector<std::string> copy() {
    std::lock_guard lock(mutex);
    return lines;
  }
};

TEST(ServerLogTap, KeepsTheWarningOfALocalizerThatReadNoFrames) {
  for (const bool forwarding : {false, true}) {
    SCOPED_TRACE(forwarding ? "verbose" : "quiet");
    Lines forwarded, live;
    ServerLogTap tap(forwarding ? forwarded.sink() : nullptr, live.sink());
    server::ServerOptions options;
    options.store = makeRecordStore("memory", {}, nullptr);
    options.log = tap.sink();
    server::Server server(std::move(options));
    ASSERT_TRUE(server.start());

    httplib::Client http(server.baseUrl());
    const std::string digest = "00112233445566778899aabbccddeeff";
    const httplib::Headers headers{{"X-Omra-Account", digest}};
    const Json opening{
        {"app_id", "com.example.app"}, {"user_id", "ana"},        {"map_id", "hall"},
        {"developer_key", digest},     {"pod_version", "v0.3.6"}, {"data_version", "1"}};
    auto post = [&](const char* path, const Json& body) {
      httplib::Result r = http.Post(path, headers, body.dump(), "application/json");
      EXPECT_TRUE(r && r->status == 200) << path << " " << (r ? r->body : "no answer");
      return r ? Json::parse(r->body, nullptr, false) : Json();
    };
    const std::string map = post("/prod/maps/create_map", opening).value("uuid", "");
    const std::string session =
        post("/prod/maps/create_localization_session", opening).value("session_uuid", "");
    ASSERT_FALSE(map.empty() || session.empty());
    // No record of the session ever arrives.
    post("/prod/full-image-matcher", Json{{"uuid", session}});

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (tap.warnings().empty() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    server.stop();

    const std::vector<std::string> warnings = tap.warnings();
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].rfind("warning: full_image_matcher for session " + session, 0), 0u)
        << warnings[0];
    EXPECT_NE(warnings[0].find("map " + map), std::string::npos) << warnings[0];
    EXPECT_EQ(live.copy(), warnings);
    // Verbose output still gets every line, the warning among them.
    const std::vector<std::string> all = forwarded.copy();
    EXPECT_EQ(std::count(all.begin(), all.end(), warnings[0]), forwarding ? 1 : 0);
    EXPECT_EQ(all.size() > warnings.size(), forwarding);
  }
}

}  // namespace
}  // namespace omra::tools
