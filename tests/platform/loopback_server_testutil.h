// A cpp-httplib server on 127.0.0.1 with an ephemeral port, for tests that need a real peer.
#pragma once

#include <httplib.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace omra::testing {

// A loopback port that was free a moment ago and has no listener.
int unusedLoopbackPort();

// Owned by one test; routes are registered on server() before start(). Stops in the destructor.
class LoopbackServer {
 public:
  LoopbackServer() = default;
  ~LoopbackServer();
  httplib::Server& server() { return server_; }
  // Binds an ephemeral port and serves on a thread; returns "http://127.0.0.1:PORT".
  std::string start();
  int port() const { return port_; }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

// A loopback peer that keeps every request (any method, any path) and answers each from a script
// of replies, the last one repeating. Serves from construction to destruction. Thread-safe.
class RecordingServer {
 public:
  struct Reply {
    int status = 200;
    std::string body = "{}";
    std::string contentType = "application/json";
  };
  RecordingServer();  // answers 200 with "{}"
  explicit RecordingServer(std::vector<Reply> script);
  // "http://127.0.0.1:PORT"
  const std::string& origin() const { return origin_; }
  // The answer to every later request.
  void setReply(Reply reply);
  std::vector<httplib::Request> requests() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Reply> script_;
  std::vector<httplib::Request> requests_;
  std::string origin_;
  LoopbackServer loopback_;  // last: stops before what its handler touches goes
};

}  // namespace omra::testing
