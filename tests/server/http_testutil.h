// Scaffolding for tests of omra-server's HTTP front: a blocking raw-socket client that speaks
// bytes (for requests no library would send), an HttpServer with an echo handler and a captured
// log, and gzip/deflate helpers. Each object is owned by one test; MemoryLog is thread-safe.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/http_server.h"
#include "server/request.h"

namespace omra::server::testing {

// The log lines a server wrote, kept for assertions.
class MemoryLog {
 public:
  std::function<void(std::string_view)> sink();
  std::vector<std::string> lines() const;
  // The first line containing needle, or nullopt.
  std::optional<std::string> find(std::string_view needle) const;
  // find(), waiting up to wait for the line: a request is logged once its answer is out, which
  // may be just after the client read it.
  std::optional<std::string> waitFor(
      std::string_view needle, std::chrono::milliseconds wait = std::chrono::seconds(2)) const;

 private:
  mutable std::mutex mu_;
  std::shared_ptr<std::vector<std::string>> lines_ = std::make_shared<std::vector<std::string>>();
};

struct RawAnswer {
  int status = 0;                              // 0: no complete answer (closed or timed out first)
  std::map<std::string, std::string> headers;  // lower-case names
  std::string body;
  Json json;  // body parsed, or null
  std::string errorMessage() const;
};

// One TCP connection to 127.0.0.1:port; every read waits at most the given time.
class RawClient {
 public:
  explicit RawClient(int port);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return fd_ >= 0; }
  // False when the peer has closed or reset the connection.
  bool send(std::string_view bytes);
  // The next answer on the connection (interim 1xx answers are returned too).
  RawAnswer read(std::chrono::milliseconds wait = std::chrono::seconds(5));
  // True when the server closes the connection within wait (end of stream or reset).
  bool closedWithin(std::chrono::milliseconds wait);

 private:
  bool fill(std::chrono::steady_clock::time_point deadline);

  int fd_ = -1;
  std::string pending_;
  bool eof_ = false;
};

// "GET path HTTP/1.1" with Host and the account header, then extra header lines (each ending in
// \r\n), then body with its Content-Length when given.
std::string rawRequest(const std::string& method, const std::string& target,
                       const std::string& extraHeaders = "",
                       const std::optional<std::string>& body = std::nullopt);

std::string gzipped(std::string_view data);
std::string zlibDeflated(std::string_view data, bool raw);
// 64 MiB of zeros gzipped (about 64 KB), made once.
const std::string& gzipBomb();

// An HttpServer on a free loopback port whose handler echoes the request as JSON: method, path,
// query, the body's size and text (when short), and a "headers" object. Path "/sleep" waits
// query "ms" milliseconds first; path "/throw" throws.
class EchoServer {
 public:
  explicit EchoServer(HttpOptions options = fastOptions());
  ~EchoServer();
  // Short deadlines, so that tests about them take a moment.
  static HttpOptions fastOptions();

  HttpServer& server() { return *server_; }
  int port() const { return server_->port(); }
  MemoryLog& log() { return log_; }

 private:
  MemoryLog log_;
  std::unique_ptr<HttpServer> server_;
};

}  // namespace omra::server::testing
