// A cpp-httplib server on 127.0.0.1 with an ephemeral port, for tests that need a real peer.
#pragma once

#include <httplib.h>

#include <string>
#include <thread>

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

}  // namespace omra::testing
