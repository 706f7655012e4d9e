// omra-server's HTTP/1.1 front: accepts connections, turns each request into a Request for one
// handler and writes back its Answer. Event-driven (a few I/O threads, a pool for the handler),
// with a connection cap and deadlines per connection. Owned by Server; start, stop and the
// accessors are thread-safe; the handler runs on several threads at once.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "server/request.h"

namespace omra::server {

struct HttpOptions {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: any free port
  int ioThreads = 2;
  int handlerThreads = 8;         // threads that run the handler (it may wait on the store)
  size_t maxConnections = 4096;   // more are closed at once after accept
  size_t maxBodyBytes = 1 << 20;  // on the bytes read and again on the decoded body
  size_t maxHeaderBytes = 16 << 10;
  // From the first byte of a request to the end of its header; from there to the end of its
  // body; waiting for the next request on a kept-alive connection; writing one answer.
  std::chrono::milliseconds headerTimeout{10000};
  std::chrono::milliseconds bodyTimeout{30000};
  std::chrono::milliseconds idleTimeout{5000};
  std::chrono::milliseconds writeTimeout{10000};
  bool logRequests = true;
  std::function<void(std::string_view)> log;  // must be thread-safe; null: no log
};

class HttpServer {
 public:
  using Handler = std::function<Answer(const Request&)>;

  HttpServer(HttpOptions options, Handler handler);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds (failing on a port another socket listens on) and starts serving. Call once.
  bool start(std::string* error);
  int port() const;
  // Closes the listener and every connection, lets running handlers finish and joins every
  // thread; takes well under a second whatever the clients do. Idempotent.
  void stop();
  size_t openConnections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace omra::server
