#include "tests/platform/loopback_server_testutil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace omra::testing {

int unusedLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    throw std::runtime_error("cannot probe a loopback port");
  }
  ::close(fd);  // bound but never listening, and now released
  return ntohs(addr.sin_port);
}

LoopbackServer::~LoopbackServer() {
  server_.stop();
  if (thread_.joinable()) thread_.join();
}

std::string LoopbackServer::start() {
  // Without it, Nagle's algorithm and delayed ACKs add ~40 ms to every kept-alive answer.
  server_.set_tcp_nodelay(true);
  port_ = server_.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  // stop() is a no-op until the server runs, so wait for that before anyone may call it.
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return "http://127.0.0.1:" + std::to_string(port_);
}

RecordingServer::RecordingServer() : RecordingServer(std::vector<Reply>(1)) {}

RecordingServer::RecordingServer(std::vector<Reply> script) : script_(std::move(script)) {
  auto handler = [this](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard lock(mutex_);
    requests_.push_back(req);
    const Reply& r = script_[std::min(requests_.size(), script_.size()) - 1];
    res.status = r.status;
    res.set_content(r.body, r.contentType);
  };
  // One request per connection, so that stopping never waits for an idle keep-alive.
  loopback_.server().set_keep_alive_max_count(1);
  loopback_.server().Post(".*", handler);
  loopback_.server().Get(".*", handler);
  origin_ = loopback_.start();
}

void RecordingServer::setReply(Reply reply) {
  std::lock_guard lock(mutex_);
  script_ = {std::move(reply)};
}

std::vector<httplib::Request> RecordingServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

}  // namespace omra::testing
