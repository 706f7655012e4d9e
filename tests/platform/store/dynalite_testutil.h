// A dynalite server (the npm DynamoDB-compatible server) on a free loopback port, for store tests.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace omra::testing {

// The folder holding node_modules with dynalite and the AWS JavaScript SDK.
std::string peersDir();

// Owns one node child process; stop() or the destructor ends it. Not thread-safe.
class DynaliteServer {
 public:
  // Null with *why set when node or dynalite is missing or the server does not come up.
  static std::unique_ptr<DynaliteServer> start(std::string* why);
  ~DynaliteServer();
  void stop();
  const std::string& endpoint() const { return endpoint_; }

 private:
  DynaliteServer(pid_t pid, std::string endpoint) : pid_(pid), endpoint_(std::move(endpoint)) {}
  pid_t pid_;
  std::string endpoint_;
};

// One server for the whole test process (started on first use, stopped at exit); null with *why
// set as for start(). Tests sharing it use their own session identifiers.
DynaliteServer* sharedDynalite(std::string* why);

// A free TCP port on 127.0.0.1 (bound, read back, released).
int freeLoopbackPort();

}  // namespace omra::testing
