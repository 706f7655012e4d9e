#include "tests/cloud/cloud_api_testutil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace omra::testing {

CapturingServer::CapturingServer() {
  auto handler = [this](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back({req.method, req.path, req.body, req.get_header_value("Content-Type")});
    res.status = status_;
    res.set_content(body_, contentType_.c_str());
  };
  // One request per connection, so that stopping never waits for an idle keep-alive.
  server_.set_keep_alive_max_count(1);
  server_.Post(".*", handler);
  server_.Get(".*", handler);
  port_ = server_.bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  // stop() before the accept loop runs would be lost and the join would hang.
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

CapturingServer::~CapturingServer() {
  server_.stop();
  thread_.join();
}

void CapturingServer::setReply(int status, std::string body, std::string contentType) {
  std::lock_guard<std::mutex> lock(mutex_);
  status_ = status;
  body_ = std::move(body);
  contentType_ = std::move(contentType);
}

std::vector<CapturedRequest> CapturingServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::string refusedOrigin() {
  // Bound but never listening, then closed: connections to it are refused.
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  int port = 1;
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  if (fd >= 0) ::close(fd);
  return "http://127.0.0.1:" + std::to_string(port);
}

void CompletionCountingClient::send(HttpRequest request, Completion completion) {
  inner_->send(std::move(request),
               [this, completion = std::move(completion)](HttpResponse response) {
                 completion(std::move(response));
                 std::lock_guard<std::mutex> lock(mutex_);
                 ++completed_;
                 cv_.notify_all();
               });
}

bool CompletionCountingClient::waitForCompletions(int count, std::chrono::seconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, timeout, [&] { return completed_ >= count; });
}

}  // namespace omra::testing
