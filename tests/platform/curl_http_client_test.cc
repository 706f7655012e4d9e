#include "src/platform/curl_http_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "src/platform/asio_dispatcher.h"
#include "src/platform/manual_main_queue.h"
#include "tests/platform/loopback_server_testutil.h"

namespace omra {
namespace {

using namespace std::chrono_literals;

// Completions land on a ManualMainQueue pumped by the test thread, so each test can also check
// that they arrive on the main queue and exactly once.
class CurlHttpClientTest : public ::testing::Test {
 protected:
  CurlHttpClientTest() { dispatcher_.installMainQueue(main_); }

  // Sends through `send` (given the completion) and waits for exactly one completion.
  HttpResponse await(const std::function<void(HttpClient::Completion)>& send) {
    std::optional<HttpResponse> got;
    int calls = 0;
    send([&](HttpResponse r) {
      EXPECT_TRUE(main_->isCurrent());
      ++calls;
      got = std::move(r);
    });
    EXPECT_TRUE(main_->runUntil([&] { return calls > 0; }, 10s));
    main_->runUntil([] { return false; }, 20ms);  // a second completion would show here
    EXPECT_EQ(calls, 1);
    return got.value_or(HttpResponse{});
  }
  HttpResponse get(CurlHttpClient& client, const std::string& url) {
    return await([&](HttpClient::Completion done) { client.get(url, std::move(done)); });
  }

  AsioDispatcher dispatcher_;
  std::shared_ptr<ManualMainQueue> main_ = std::make_shared<ManualMainQueue>();
  testing::LoopbackServer server_;
};

TEST_F(CurlHttpClientTest, PostsJsonAndGets) {
  // The server answers with what it received.
  server_.server().Post("/create_map", [](const httplib::Request& req, httplib::Response& res) {
    const Json seen = {{"body", req.body}, {"type", req.get_header_value("Content-Type")}};
    res.set_content(Json::array({seen}).dump(), "application/json");
  });
  server_.server().Get("/list", [](const httplib::Request& req, httplib::Response& res) {
    const Json seen = {{"maps", {1, 2}}, {"seen", req.method + " " + req.get_param_value("lat")}};
    res.set_content(seen.dump(), "application/json");
  });
  const std::string base = server_.start();
  CurlHttpClient client(dispatcher_);

  HttpResponse post = await([&](HttpClient::Completion done) {
    client.postJson(base + "/create_map", Json{{"z_key", 1}, {"a_key", "x"}}, std::move(done));
  });
  EXPECT_EQ(post.status, 200);
  EXPECT_TRUE(post.transportError.empty());
  ASSERT_TRUE(post.json.has_value());
  EXPECT_EQ((*post.json)[0]["body"], R"({"z_key":1,"a_key":"x"})");  // key order kept
  EXPECT_EQ((*post.json)[0]["type"], "application/json");
  HttpResponse got = get(client, base + "/list?lat=1.5");
  EXPECT_EQ(got.status, 200);
  ASSERT_TRUE(got.json.has_value());
  EXPECT_EQ(got.json->at("maps").size(), 2u);
  EXPECT_EQ(got.json->at("seen"), "GET 1.5");
}

TEST_F(CurlHttpClientTest, AnswerHeadersArriveByLowerCaseName) {
  server_.server().Get("/busy", [](const httplib::Request&, httplib::Response& res) {
    res.status = 429;
    res.set_header("Retry-After", "7");
    res.set_header("X-Request-Id", "abc");
    res.set_content("{}", "application/json");
  });
  server_.server().Get("/moved", [](const httplib::Request&, httplib::Response& res) {
    res.set_redirect("/busy");
    res.set_header("X-Only-On-Redirect", "1");
  });
  const std::string base = server_.start();
  CurlHttpClient client(dispatcher_);
  for (const char* path : {"/busy", "/moved"}) {
    SCOPED_TRACE(path);
    const HttpResponse r = get(client, base + path);
    EXPECT_EQ(r.status, 429);
    EXPECT_EQ(r.headers.count("retry-after") ? r.headers.at("retry-after") : "", "7");
    EXPECT_EQ(r.headers.count("x-request-id") ? r.headers.at("x-request-id") : "", "abc");
    EXPECT_EQ(r.headers.count("Retry-After"), 0u);
    EXPECT_EQ(r.headers.count("x-only-on-redirect"), 0u) << "only the final answer's headers";
  }
}

TEST_F(CurlHttpClientTest, BodiesThatAreNotJson) {
  struct Case {
    const char* name;
    int status;
    std::string body;
    bool json;
  };
  const std::vector<Case> cases = {
      {"html", 200, "<html><body>Bad gateway</body></html>", false},
      {"empty", 200, "", false},
      {"truncated", 200, R"({"maps":[{"map_id":"m)", false},
      {"error_json", 500, R"({"error":"boom"})", true},
      {"deep", 200, std::string(100000, '[') + std::string(100000, ']'), false},
      {"deep_then_key", 200, "{\"a\":" + std::string(100000, '[') + "],\"b\":1}", false},
      {"not_utf8", 200, "{\"map\":\"\xff\"}", false},
      {"null", 200, "null", true},
  };
  for (const auto& c : cases) {
    server_.server().Get(std::string("/") + c.name,
                         [&c](const httplib::Request&, httplib::Response& res) {
                           res.status = c.status;
                           res.set_content(c.body, "application/json");
                         });
  }
  const std::string base = server_.start();
  CurlHttpClient client(dispatcher_);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HttpResponse r = get(client, base + "/" + c.name);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.body, c.body);
    EXPECT_EQ(r.json && !r.json->is_discarded(), c.json);
    // A refused body is marked as such, so that no reader parses it a second time.
    EXPECT_EQ(r.json.has_value(), !c.body.empty());
  }
}

TEST_F(CurlHttpClientTest, TransportFailures) {
  // A port that was bound and released: nothing listens there.
  const int deadPort = testing::unusedLoopbackPort();
  auto release = std::make_shared<std::atomic<bool>>(false);  // the handler may outlive the body
  server_.server().Get("/stall", [release](const httplib::Request&, httplib::Response& res) {
    for (int i = 0; i < 600 && !*release; ++i) std::this_thread::sleep_for(5ms);
    res.set_content("late", "text/plain");
  });
  server_.server().Get("/big", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(std::string(4096, 'x'), "text/plain");
  });
  const std::string base = server_.start();
  CurlHttpClient client(dispatcher_,
                        CurlHttpOptions{.idleTimeoutSeconds = 1, .maxResponseBytes = 1024});

  HttpResponse r = get(client, "http://127.0.0.1:" + std::to_string(deadPort) + "/x");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.transportError.find("onnect"), std::string::npos) << r.transportError;

  auto start = std::chrono::steady_clock::now();
  r = get(client, base + "/stall");
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.status, 0);
  EXPECT_FALSE(r.transportError.empty());
  EXPECT_GE(took, 900ms);
  EXPECT_LT(took, 2900ms);  // failed by the idle limit, not by the server's late answer
  *release = true;

  r = get(client, base + "/big");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.transportError.find("larger"), std::string::npos) << r.transportError;

  r = get(client, "file:///etc/passwd");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.body.empty());
}

TEST_F(CurlHttpClientTest, ManyConcurrentRequestsEachCompleteOnce) {
  server_.server().new_task_queue = [] { return new httplib::ThreadPool(16); };
  std::atomic<int> inside{0}, maxInside{0};
  server_.server().Post("/echo", [&](const httplib::Request& req, httplib::Response& res) {
    int now = ++inside, seen = maxInside;
    while (now > seen && !maxInside.compare_exchange_weak(seen, now)) continue;
    std::this_thread::sleep_for(30ms);
    --inside;
    res.set_content(req.body, "application/json");
  });
  const std::string base = server_.start();
  CurlHttpClient client(dispatcher_);
  constexpr int kRequests = 16;
  std::multiset<int> seen;
  // Sent from several threads at once.
  std::vector<std::thread> senders;
  for (int s = 0; s < 4; ++s) {
    senders.emplace_back([&, s] {
      for (int i = s; i < kRequests; i += 4) {
        client.postJson(base + "/echo", Json{{"i", i}}, [&](HttpResponse r) {
          EXPECT_TRUE(main_->isCurrent());
          seen.insert(r.json ? r.json->value("i", -1) : -1);
        });
      }
    });
  }
  for (auto& t : senders) t.join();
  ASSERT_TRUE(main_->runUntil([&] { return seen.size() >= kRequests; }, 10s));
  main_->runUntil([] { return false; }, 20ms);
  EXPECT_EQ(seen.size(), size_t{kRequests});
  for (int i = 0; i < kRequests; ++i) EXPECT_EQ(seen.count(i), 1u) << i;
  // The single worker thread keeps many requests in flight at once.
  EXPECT_GT(maxInside.load(), 4);
}

TEST_F(CurlHttpClientTest, DestructionCancelsRequestsInFlight) {
  // Shared with the handler, which may outlive this body on a slow machine.
  struct Gate {
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
  };
  auto gate = std::make_shared<Gate>();
  server_.server().Get("/hang", [gate](const httplib::Request&, httplib::Response& res) {
    gate->entered = true;
    for (int i = 0; i < 2000 && !gate->release; ++i) std::this_thread::sleep_for(5ms);
    res.set_content("{}", "application/json");
  });
  const std::string base = server_.start();
  int calls = 0;
  std::string error;
  {
    CurlHttpClient client(dispatcher_);
    client.get(base + "/hang", [&](HttpResponse r) {
      ++calls;
      error = r.transportError;
    });
    // Destroy the client only once the server is answering: the request is truly in flight.
    for (int i = 0; i < 2000 && !gate->entered; ++i) std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(gate->entered);
  }
  gate->release = true;
  ASSERT_TRUE(main_->runUntil([&] { return calls > 0; }, 5s));
  main_->runUntil([] { return false; }, 20ms);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(error, "cancelled");
}

}  // namespace
}  // namespace omra
