// One accepted connection of HttpServer: reads requests one after another (pipelined ones
// included), hands each to the handler pool and writes the answers, under the header, body, idle
// and write deadlines. Owned by shared pointers held by its pending operations; every member runs
// on the connection's strand, only start() and abort() may be called from other threads.
#pragma once

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "server/http_request_reader.h"
#include "server/http_server.h"

namespace omra::server {

class HttpConnection;

// What the connections of one HttpServer share; lives as long as the last of them. The members
// under mu are guarded by it; the rest is set before the first connection and then only read.
struct HttpShared {
  HttpOptions options;
  HttpServer::Handler handler;
  boost::asio::thread_pool* handlers = nullptr;
  std::atomic<bool> stopping{false};

  std::mutex mu;
  std::condition_variable drained;  // notified when the last connection goes
  std::unordered_map<const HttpConnection*, std::weak_ptr<HttpConnection>> open;

  void log(std::string_view line) const {
    if (options.log) options.log(line);
  }
};

class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
 public:
  HttpConnection(boost::asio::ip::tcp::socket socket, std::shared_ptr<HttpShared> shared);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  void start();
  // Closes the socket at once, whatever the connection is doing.
  void abort();

 private:
  using Clock = std::chrono::steady_clock;
  enum class Phase { idle, header, body, handling, writing, lingering };

  void nextRequest();
  void beginRequest();
  void read();
  void onRead(boost::beast::error_code ec, size_t bytes);
  void feed();
  // False when the request was refused or feeding resumes later (after "100 Continue").
  bool onHeader();
  void dispatch();
  void answer(const Answer& a, bool close, const std::string& reason);
  void onWritten(boost::beast::error_code ec, bool close, const std::string& reason);
  void refuse(const HttpRefusal& refusal);
  void linger();
  void drain();
  void close();
  void logRequest(int status, const std::string& note);

  boost::beast::tcp_stream stream_;
  std::shared_ptr<HttpShared> shared_;
  boost::beast::flat_buffer buffer_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  boost::beast::http::response<boost::beast::http::string_body> response_;
  Phase phase_ = Phase::idle;
  bool closed_ = false;
  bool continueSent_ = false;
  Clock::time_point start_;      // first byte of the current request
  Clock::time_point deadline_;   // of the current phase
  std::string method_, target_;  // of the current request, as received, for the log
  unsigned version_ = 11;
  size_t bodyBytes_ = 0;
  size_t lingered_ = 0;
};

}  // namespace omra::server
