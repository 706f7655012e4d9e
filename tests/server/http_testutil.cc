#include "tests/server/http_testutil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <charconv>
#include <stdexcept>
#include <thread>

namespace omra::server::testing {

std::function<void(std::string_view)> MemoryLog::sink() {
  return [this](std::string_view line) {
    std::lock_guard lock(mu_);
    lines_->emplace_back(line);
  };
}

std::vector<std::string> MemoryLog::lines() const {
  std::lock_guard lock(mu_);
  return *lines_;
}

std::optional<std::string> MemoryLog::find(std::string_view needle) const {
  std::lock_guard lock(mu_);
  for (const std::string& l : *lines_) {
    if (l.find(needle) != std::string::npos) return l;
  }
  return std::nullopt;
}

std::optional<std::string> MemoryLog::waitFor(std::string_view needle,
                                              std::chrono::milliseconds wait) const {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  while (true) {
    if (auto line = find(needle)) return line;
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string RawAnswer::errorMessage() const {
  return json.is_object() ? json.value("errorMessage", "") : "";
}

RawClient::RawClient(int port) {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    return;
  }
  int one = 1;
  ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

RawClient::~RawClient() {
  if (fd_ >= 0) ::close(fd_);
}

bool RawClient::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool RawClient::fill(std::chrono::steady_clock::time_point deadline) {
  if (eof_ || fd_ < 0) return false;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return false;
  pollfd p{fd_, POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
  char buf[16384];
  const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
  if (n <= 0) {
    eof_ = true;
    return false;
  }
  pending_.append(buf, static_cast<size_t>(n));
  return true;
}

RawAnswer RawClient::read(std::chrono::milliseconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  size_t end;
  while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
    if (!fill(deadline)) return {};
  }
  RawAnswer a;
  const std::string head = pending_.substr(0, end + 2);
  if (head.size() < 12 || head.compare(0, 5, "HTTP/") != 0) return {};
  std::from_chars(head.data() + 9, head.data() + 12, a.status);
  for (size_t at = head.find("\r\n") + 2; at < head.size();) {
    const size_t eol = head.find("\r\n", at);
    const std::string line = head.substr(at, eol - at);
    const size_t colon = line.find(':');
    if (colon != std::string::npos) {
      std::string name = line.substr(0, colon);
      for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      a.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
    }
    at = eol + 2;
  }
  size_t length = 0;
  if (auto it = a.headers.find("content-length"); it != a.headers.end()) {
    std::from_chars(it->second.data(), it->second.data() + it->second.size(), length);
  }
  while (pending_.size() < end + 4 + length) {
    if (!fill(deadline)) return {};
  }
  a.body = pending_.substr(end + 4, length);
  pending_.erase(0, end + 4 + length);
  a.json = Json::parse(a.body, nullptr, false);
  if (a.json.is_discarded()) a.json = nullptr;
  return a;
}

bool RawClient::closedWithin(std::chrono::milliseconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  while (!eof_) {
    if (!fill(deadline) && !eof_) return false;
  }
  return true;
}

std::string rawRequest(const std::string& method, const std::string& target,
                       const std::string& extraHeaders, const std::optional<std::string>& body) {
  std::string r = method + " " + target +
                  " HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                  "X-Omra-Account: 0123456789abcdef0123456789abcdef\r\n" +
                  extraHeaders;
  if (body) r += "Content-Length: " + std::to_string(body->size()) + "\r\n";
  r += "\r\n";
  if (body) r += *body;
  return r;
}

namespace {

std::string compress(std::string_view data, int windowBits) {
  z_stream z{};
  if (deflateInit2(&z, Z_BEST_COMPRESSION, Z_DEFLATED, windowBits, 9, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("deflateInit2");
  }
  std::string out(deflateBound(&z, data.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  const int rc = deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  if (rc != Z_STREAM_END) throw std::runtime_error("deflate");
  return out;
}

}  // namespace

std::string gzipped(std::string_view data) { return compress(data, 15 + 16); }
std::string zlibDeflated(std::string_view data, bool raw) { return compress(data, raw ? -15 : 15); }

const std::string& gzipBomb() {
  static const std::string bomb = gzipped(std::string(64 << 20, '\0'));
  return bomb;
}

HttpOptions EchoServer::fastOptions() {
  HttpOptions o;
  o.headerTimeout = std::chrono::milliseconds(400);
  o.bodyTimeout = std::chrono::milliseconds(400);
  o.idleTimeout = std::chrono::milliseconds(400);
  o.writeTimeout = std::chrono::milliseconds(1000);
  o.handlerThreads = 4;
  return o;
}

EchoServer::EchoServer(HttpOptions options) {
  options.port = 0;
  options.log = log_.sink();
  server_ = std::make_unique<HttpServer>(std::move(options), [](const Request& r) {
    if (r.path == "/throw") throw std::runtime_error("route failed");
    if (r.path == "/sleep") {
      int ms = 0;
      const std::string v = r.query.count("ms") ? r.query.at("ms") : "0";
      std::from_chars(v.data(), v.data() + v.size(), ms);
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    Json headers = Json::object();
    for (const auto& [name, value] : r.headers) headers[name] = value;
    Json query = Json::object();
    for (const auto& [name, value] : r.query) query[name] = value;
    return Answer(200, Json{{"method", r.method},
                            {"path", r.path},
                            {"query", query},
                            {"headers", headers},
                            {"bodyBytes", r.body.size()},
                            {"body", r.body.size() <= 256 ? r.body : std::string()}});
  });
  std::string error;
  if (!server_->start(&error)) throw std::runtime_error("echo server: " + error);
}

EchoServer::~EchoServer() { server_->stop(); }

}  // namespace omra::server::testing
