// omra-server's HTTP front over real sockets: strict framing, body limits however the body comes,
// deadlines, fairness between many and slow connections, stopping, binding and the log.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <thread>

#include "server/server.h"
#include "server/server_process.h"
#include "src/platform/store/memory_record_store.h"
#include "tests/server/http_testutil.h"

namespace omra::server {
namespace {

using namespace std::chrono_literals;
using testing::EchoServer;
using testing::RawAnswer;
using testing::RawClient;
using testing::rawRequest;
using Clock = std::chrono::steady_clock;

constexpr size_t kMiB = 1 << 20;

std::string chunked(const std::string& body, size_t chunk) {
  std::string out;
  char size[32];
  for (size_t at = 0; at < body.size(); at += chunk) {
    const size_t n = std::min(chunk, body.size() - at);
    std::snprintf(size, sizeof size, "%zx\r\n", n);
    out += size + body.substr(at, n) + "\r\n";
  }
  return out + "0\r\n\r\n";
}

class HttpFrontTest : public ::testing::Test {
 protected:
  EchoServer echo_;
};

TEST_F(HttpFrontTest, RefusedRequestsGetAJsonReasonAndTheConnectionCloses) {
  const std::string post = "POST /x HTTP/1.1\r\nHost: h\r\n";
  const std::string big(kMiB + 1, 'b');
  struct Case {
    const char* name;
    std::string bytes;
    int status;
    const char* says;
  };
  const Case cases[] = {
      {"path not UTF-8", rawRequest("GET", "/%FF"), 400, "path"},
      {"broken escape", rawRequest("GET", "/a%2"), 400, "path"},
      {"path with a broken UTF-8 sequence", rawRequest("GET", "/prod/%C3%28"), 400, "path"},
      {"query not UTF-8", rawRequest("GET", "/prod/maps/get_best_transform?localizer=%FF"), 400,
       "query"},
      {"conflicting lengths", post + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nab", 400,
       "Malformed HTTP request"},
      {"repeated length", post + "Content-Length: 2\r\nContent-Length: 2\r\n\r\nab", 400,
       "Repeated Content-Length"},
      {"length and chunked", post + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n", 400,
       "Malformed HTTP request"},
      {"other transfer coding", post + "Transfer-Encoding: gzip, chunked\r\n\r\n", 400,
       "Transfer-Encoding"},
      {"obs-fold", post + "X-Note: a\r\n b\r\nContent-Length: 0\r\n\r\n", 400, "Folded"},
      {"bad chunk size", post + "Transfer-Encoding: chunked\r\n\r\nzz\r\nab\r\n0\r\n\r\n", 400,
       "Malformed HTTP request"},
      {"chunk longer than said", post + "Transfer-Encoding: chunked\r\n\r\n2\r\nabc\r\n0\r\n\r\n",
       400, "Malformed HTTP request"},
      {"no Host", "GET /x HTTP/1.1\r\n\r\n", 400, "Host"},
      {"header too large", rawRequest("GET", "/x", "X-Big: " + std::string(20000, 'h') + "\r\n"),
       400, "Request header over"},
      {"length over the limit", rawRequest("POST", "/x", "", big), 400,
       "Request body over 1048576 bytes"},
      {"chunked over the limit",
       rawRequest("POST", "/x", "Transfer-Encoding: chunked\r\n") + chunked(big, 60000), 400,
       "Request body over 1048576 bytes"},
      {"gzip bomb", rawRequest("POST", "/x", "Content-Encoding: gzip\r\n", testing::gzipBomb()),
       400, "Request body over 1048576 bytes"},
      {"broken gzip", rawRequest("POST", "/x", "Content-Encoding: gzip\r\n", "not gzip"), 400,
       "Malformed gzip body"},
      {"unknown coding", rawRequest("POST", "/x", "Content-Encoding: br\r\n", "x"), 415,
       "Unsupported Content-Encoding br"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient client(echo_.port());
    ASSERT_TRUE(client.connected());
    client.send(c.bytes);  // the server may close before the last byte: fine
    RawAnswer a = client.read();
    EXPECT_EQ(a.status, c.status);
    EXPECT_EQ(a.headers["content-type"], "application/json");
    EXPECT_NE(a.errorMessage().find(c.says), std::string::npos) << a.body;
    EXPECT_TRUE(client.closedWithin(3s));
  }
  // Each refusal is logged with its status.
  EXPECT_TRUE(echo_.log().waitFor("GET /%FF 400"));
  EXPECT_TRUE(echo_.log().waitFor("POST /x 415"));
}

TEST_F(HttpFrontTest, BodiesArriveDecodedHoweverTheyAreFramed) {
  const std::string body = R"({"say":"hello"})";
  const std::string exact(kMiB, 'e');
  struct Case {
    const char* name;
    std::string bytes;
    size_t bodyBytes;
  };
  const Case cases[] = {
      {"length", rawRequest("POST", "/x", "", body), body.size()},
      {"chunked", rawRequest("POST", "/x", "Transfer-Encoding: chunked\r\n") + chunked(body, 4),
       body.size()},
      {"chunked, exactly the limit",
       rawRequest("POST", "/x", "Transfer-Encoding: chunked\r\n") + chunked(exact, 70000), kMiB},
      {"gzip", rawRequest("POST", "/x", "Content-Encoding: gzip\r\n", testing::gzipped(body)),
       body.size()},
      {"gzip, chunked",
       rawRequest("POST", "/x", "Content-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n") +
           chunked(testing::gzipped(exact), 1000),
       kMiB},
      {"deflate",
       rawRequest("POST", "/x", "Content-Encoding: deflate\r\n",
                  testing::zlibDeflated(body, false)),
       body.size()},
  };
  RawClient client(echo_.port());  // one kept-alive connection for all
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(client.send(c.bytes));
    RawAnswer a = client.read();
    ASSERT_EQ(a.status, 200) << a.body;
    EXPECT_EQ(a.json["bodyBytes"], c.bodyBytes);
    if (c.bodyBytes == body.size()) {
      EXPECT_EQ(a.json["body"], body);
    }
  }
}

TEST_F(HttpFrontTest, PipelinedExpectContinueAndHttp10Requests) {
  {
    RawClient client(echo_.port());
    ASSERT_TRUE(client.send(rawRequest("GET", "/one?n=1") + rawRequest("POST", "/two", "", "22")));
    RawAnswer first = client.read(), second = client.read();
    EXPECT_EQ(first.json["path"], "/one");
    EXPECT_EQ(first.json["query"]["n"], "1");
    EXPECT_EQ(second.json["path"], "/two");
    EXPECT_EQ(second.json["body"], "22");
  }
  {
    RawClient client(echo_.port());
    std::string r = rawRequest("POST", "/c", "Expect: 100-continue\r\n", "body");
    ASSERT_TRUE(client.send(r.substr(0, r.size() - 4)));
    EXPECT_EQ(client.read().status, 100);
    ASSERT_TRUE(client.send("body"));
    RawAnswer a = client.read();
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.json["body"], "body");
  }
  {
    RawClient client(echo_.port());
    ASSERT_TRUE(client.send("GET /old HTTP/1.0\r\n\r\n"));
    EXPECT_EQ(client.read().json["path"], "/old");
    EXPECT_TRUE(client.closedWithin(2s));
  }
  {
    RawClient client(echo_.port());
    ASSERT_TRUE(client.send(rawRequest("GET", "/throw")));
    RawAnswer a = client.read();
    EXPECT_EQ(a.status, 500);
    EXPECT_EQ(a.errorMessage(), "Internal error");
  }
}

TEST_F(HttpFrontTest, LogLinesEscapeWhatTheClientSentAndTimeFromTheFirstByte) {
  RawClient client(echo_.port());
  ASSERT_TRUE(client.send(rawRequest("GET", "/a%0Ab%0D%1B")));
  EXPECT_EQ(client.read().json["path"], "/a\nb\r\x1b");
  const std::string r = rawRequest("GET", "/late");
  ASSERT_TRUE(client.send(r.substr(0, 10)));
  std::this_thread::sleep_for(250ms);
  ASSERT_TRUE(client.send(r.substr(10)));
  EXPECT_EQ(client.read().status, 200);
  EXPECT_TRUE(echo_.log().waitFor("GET /a%0Ab%0D%1B 200"));
  auto late = echo_.log().waitFor("GET /late 200");
  ASSERT_TRUE(late);
  const double ms = std::stod(late->substr(late->rfind(", ") + 2));
  EXPECT_GE(ms, 240) << *late;
  RawClient raw(echo_.port());
  ASSERT_TRUE(raw.send(rawRequest("GET", "/raw\xff\xc2\x85")));
  EXPECT_EQ(raw.read().status, 400);
  EXPECT_TRUE(echo_.log().waitFor("GET /raw\\xff\\xc2\\x85 400"));
  for (const std::string& line : echo_.log().lines()) {
    EXPECT_EQ(line.find_first_of("\r\n\x1b\xff\xc2"), std::string::npos) << line;
  }
}

TEST(HttpDeadlines, SlowClientsAreCutAtTheirDeadlines) {
  HttpOptions o = EchoServer::fastOptions();
  o.headerTimeout = 300ms;
  o.bodyTimeout = 300ms;
  o.idleTimeout = 300ms;
  EchoServer echo(o);
  struct Case {
    const char* name;
    std::string first;     // sent at once
    std::string trickled;  // then one byte every 50 ms
  };
  const std::string head = rawRequest("POST", "/x", "", std::string(100, 'b'));
  const Case cases[] = {
      {"idle", "", ""},
      {"trickled header", "", head},
      {"trickled body", head.substr(0, head.size() - 100), std::string(100, 'b')},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient client(echo.port());
    const auto start = Clock::now();
    client.send(c.first);
    bool closed = false;
    for (char ch : c.trickled) {
      if (!client.send(std::string(1, ch)) || client.closedWithin(50ms)) {
        closed = true;
        break;
      }
    }
    if (!closed) closed = client.closedWithin(3s);
    const auto took = Clock::now() - start;
    EXPECT_TRUE(closed);
    EXPECT_GE(took, 250ms);
    EXPECT_LT(took, 2s);
  }
  EXPECT_TRUE(echo.log().waitFor("POST /x 0 0 bytes in, 0 bytes out"));
  EXPECT_TRUE(echo.log().waitFor("cut at its body deadline"));
  EXPECT_TRUE(echo.log().waitFor("cut at its header deadline"));
}

TEST(HttpFairness, SlowConnectionsDoNotStarveOthers) {
  HttpOptions o = EchoServer::fastOptions();
  o.headerTimeout = 30s;  // the slow ones stay for the whole test
  o.idleTimeout = 30s;
  EchoServer echo(o);
  std::vector<std::unique_ptr<RawClient>> slow;
  for (int i = 0; i < 200; ++i) {
    slow.push_back(std::make_unique<RawClient>(echo.port()));
    ASSERT_TRUE(slow.back()->send("POST /slow HTTP/1.1\r\nHo"));
  }
  for (int round = 0; round < 5; ++round) {
    RawClient client(echo.port());
    const auto start = Clock::now();
    ASSERT_TRUE(client.send(rawRequest("GET", "/fast")));
    EXPECT_EQ(client.read(2s).status, 200);
    EXPECT_LT(Clock::now() - start, 500ms);
    for (auto& s : slow) s->send("s");  // one more byte each
  }
}

TEST(HttpFairness, ManyKeptAliveClientsAreAllAnsweredPromptly) {
  raiseOpenFileLimit();
  for (int handlerThreads : {4, 0}) {  // a handler pool, and handlers on the I/O threads
    SCOPED_TRACE(handlerThreads);
    HttpOptions o = EchoServer::fastOptions();
    o.handlerThreads = handlerThreads;
    o.idleTimeout = 30s;  // opening them all may take a while under a sanitizer
    EchoServer echo(o);
    constexpr int kClients = 256;
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < kClients; ++i) {
      clients.push_back(std::make_unique<RawClient>(echo.port()));
      ASSERT_TRUE(clients.back()->connected());
    }
    const auto start = Clock::now();
    for (int round = 0; round < 3; ++round) {
      for (auto& c : clients) ASSERT_TRUE(c->send(rawRequest("GET", "/sleep?ms=1")));
      int answered = 0;
      for (auto& c : clients) answered += c->read(5s).status == 200;
      EXPECT_EQ(answered, kClients);
    }
    // 768 requests, each holding a thread 1 ms; a thread per connection, or waiting for one,
    // would take many times longer.
    EXPECT_LT(Clock::now() - start, 3s);
  }
}

TEST(HttpFairness, ConnectionsPastTheCapAreClosedAtOnce) {
  HttpOptions o = EchoServer::fastOptions();
  o.maxConnections = 4;
  o.idleTimeout = 30s;
  EchoServer echo(o);
  std::vector<std::unique_ptr<RawClient>> held;
  for (int i = 0; i < 4; ++i) {
    held.push_back(std::make_unique<RawClient>(echo.port()));
    ASSERT_TRUE(held.back()->send(rawRequest("GET", "/held")));
    ASSERT_EQ(held.back()->read().status, 200);
  }
  RawClient extra(echo.port());
  EXPECT_TRUE(extra.closedWithin(2s));
  held.pop_back();
  // The freed place is taken as soon as the server sees the close.
  bool served = false;
  for (int attempt = 0; attempt < 50 && !served; ++attempt) {
    RawClient again(echo.port());
    again.send(rawRequest("GET", "/again"));
    served = again.read(200ms).status == 200;
  }
  EXPECT_TRUE(served);
  EXPECT_TRUE(echo.log().waitFor("connection refused: 4 connections open"));
}

TEST(HttpStop, CompletesWithinFiveSecondsWhateverClientsDo) {
  HttpOptions o = EchoServer::fastOptions();
  o.headerTimeout = o.bodyTimeout = o.idleTimeout = 60s;
  auto echo = std::make_unique<EchoServer>(o);
  RawClient trickling(echo->port()), halfBody(echo->port()), idle(echo->port()),
      handling(echo->port());
  ASSERT_TRUE(trickling.send("GET /t"));
  ASSERT_TRUE(halfBody.send(rawRequest("POST", "/b", "", std::string(1000, 'x')).substr(0, 200)));
  ASSERT_TRUE(idle.send(rawRequest("GET", "/i")));
  ASSERT_EQ(idle.read().status, 200);
  ASSERT_TRUE(handling.send(rawRequest("GET", "/sleep?ms=300")));
  std::this_thread::sleep_for(100ms);
  std::atomic<bool> stopped{false};
  std::thread keepTrickling([&] {
    while (!stopped && trickling.send("x")) std::this_thread::sleep_for(20ms);
  });
  const auto start = Clock::now();
  echo->server().stop();
  stopped = true;
  keepTrickling.join();
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(echo->server().openConnections(), 0u);
  for (RawClient* c : {&trickling, &halfBody, &idle}) EXPECT_TRUE(c->closedWithin(1s));
  EXPECT_FALSE(RawClient(echo->port()).connected()) << "nothing listens any more";
}

// A whole omra-server, as the kit and `omra server` see it.
class ServerFrontTest : public ::testing::Test {
 protected:
  static ServerOptions options(testing::MemoryLog& log) {
    ServerOptions o;
    o.store = std::make_shared<MemoryRecordStore>();
    o.log = log.sink();
    return o;
  }
  testing::MemoryLog log_;
};

// Targets are decoded by the front (above); a decoded one no route knows is the routes' answer.
TEST_F(ServerFrontTest, UnknownRoutesComeFromTheRoutes) {
  Server server(options(log_));
  ASSERT_TRUE(server.start());
  RawClient after(server.port());
  ASSERT_TRUE(after.send(rawRequest("GET", "/nowhere%0A")));
  RawAnswer a = after.read();
  EXPECT_EQ(a.status, 404);
  EXPECT_EQ(a.errorMessage(), "Unknown route GET /nowhere\n");
}

TEST_F(ServerFrontTest, ASecondServerOnATakenPortFailsLoudly) {
  Server first(options(log_));
  ASSERT_TRUE(first.start());
  ServerOptions o = options(log_);
  o.port = first.port();
  Server second(o);
  std::string error;
  EXPECT_FALSE(second.start(&error));
  EXPECT_NE(error.find("Cannot bind 127.0.0.1:" + std::to_string(first.port())), std::string::npos)
      << error;
  EXPECT_NE(error.find("in use"), std::string::npos) << error;
  o.store = nullptr;
  o.storeSpec = "memory";
  EXPECT_EQ(runServerCommand(o), 1);
  // The first one still has the port to itself.
  RawClient client(first.port());
  ASSERT_TRUE(client.send(rawRequest("GET", "/x")));
  EXPECT_EQ(client.read().status, 404);
}

TEST_F(ServerFrontTest, SigtermStopsTheCommandWhileAClientTrickles) {
  std::promise<int> port;
  std::atomic<bool> stopped{false};
  ServerOptions o = options(log_);
  o.store = nullptr;
  o.storeSpec = "memory";  // the command opens its own store
  o.log = [&](std::string_view line) {
    if (line.starts_with("listening on ")) {
      port.set_value(std::stoi(std::string(line.substr(line.rfind(':') + 1))));
    }
    if (line.starts_with("stopped")) stopped = true;
  };
  std::promise<int> exitCode;
  std::thread command([&] { exitCode.set_value(runServerCommand(o)); });
  auto p = port.get_future();
  ASSERT_EQ(p.wait_for(10s), std::future_status::ready);
  RawClient trickling(p.get());
  ASSERT_TRUE(trickling.send("POST /prod/maps/create_map HTTP/1.1\r\nHo"));
  std::atomic<bool> done{false};
  std::thread keepTrickling([&] {
    while (!done && trickling.send("s")) std::this_thread::sleep_for(50ms);
  });
  const auto start = Clock::now();
  pthread_kill(command.native_handle(), SIGTERM);
  auto code = exitCode.get_future();
  const bool finished = code.wait_for(10s) == std::future_status::ready;
  done = true;
  keepTrickling.join();
  ASSERT_TRUE(finished);
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(code.get(), 0);
  EXPECT_TRUE(stopped);
  command.join();
}

TEST_F(ServerFrontTest, TheCommandRefusesAStoreItCannotOpen) {
  ServerOptions o = options(log_);
  o.store = nullptr;
  o.storeSpec = "nonsense:store";
  EXPECT_EQ(runServerCommand(o), 1);
  EXPECT_EQ(createTablesCommand("nonsense:store"), 1);
}

}  // namespace
}  // namespace omra::server
