#include "server/http_connection.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/write.hpp>
#include <cstdio>
#include <exception>
#include <tuple>

#include "server/http_text.h"

namespace omra::server {
namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;

namespace {

constexpr size_t kReadChunk = 16 * 1024;
// After refusing a request the client may still be sending its body: reading it for a moment
// before closing keeps the refusal from being lost to a connection reset.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr size_t kLingerBytes = 4 << 20;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

}  // namespace

HttpConnection::HttpConnection(net::ip::tcp::socket socket, std::shared_ptr<HttpShared> shared)
    : stream_(std::move(socket)), shared_(std::move(shared)) {}

HttpConnection::~HttpConnection() {
  std::lock_guard lock(shared_->mu);
  shared_->open.erase(this);
  if (shared_->open.empty()) shared_->drained.notify_all();
}

void HttpConnection::start() {
  net::dispatch(stream_.get_executor(), [self = shared_from_this()] {
    beast::error_code ignored;
    self->stream_.socket().set_option(net::ip::tcp::no_delay(true), ignored);
    self->nextRequest();
  });
}

void HttpConnection::abort() {
  net::post(stream_.get_executor(), [self = shared_from_this()] { self->close(); });
}

void HttpConnection::close() {
  closed_ = true;
  stream_.close();
}

void HttpConnection::nextRequest() {
  if (closed_) return;
  if (shared_->stopping) return close();
  parser_.emplace();
  parser_->header_limit(static_cast<uint32_t>(shared_->options.maxHeaderBytes));
  parser_->body_limit(shared_->options.maxBodyBytes);
  parser_->eager(false);  // stop after the header, to check it before reading any body
  phase_ = Phase::idle;
  continueSent_ = false;
  method_.clear();
  target_.clear();
  bodyBytes_ = 0;
  if (buffer_.size() > 0) {  // a pipelined request
    beginRequest();
    feed();
  } else {
    read();
  }
}

void HttpConnection::beginRequest() {
  phase_ = Phase::header;
  start_ = Clock::now();
  deadline_ = start_ + shared_->options.headerTimeout;
}

void HttpConnection::read() {
  if (phase_ == Phase::idle) {
    stream_.expires_after(shared_->options.idleTimeout);
  } else {
    stream_.expires_at(deadline_);
  }
  stream_.async_read_some(buffer_.prepare(kReadChunk),
                          beast::bind_front_handler(&HttpConnection::onRead, shared_from_this()));
}

void HttpConnection::onRead(beast::error_code ec, size_t bytes) {
  if (closed_) return;
  if (ec) {
    if (phase_ != Phase::idle) {
      const char* why = ec == beast::error::timeout
                            ? (phase_ == Phase::header ? "cut at its header deadline"
                                                       : "cut at its body deadline")
                            : "client went away mid-request";
      logRequest(0, why);
    }
    return close();
  }
  buffer_.commit(bytes);
  if (phase_ == Phase::idle) beginRequest();
  feed();
}

void HttpConnection::feed() {
  while (buffer_.size() > 0) {
    const bool hadHeader = parser_->is_header_done();
    if (!hadHeader) {
      const std::string_view received(static_cast<const char*>(buffer_.data().data()),
                                      buffer_.size());
      if (hasFoldedHeaderLine(received)) {
        return refuse({400, "Folded header lines are not accepted"});
      }
    }
    beast::error_code ec;
    const size_t used = parser_->put(buffer_.data(), ec);
    buffer_.consume(used);
    if (ec == http::error::need_more) {
      if (!parser_->is_header_done() && buffer_.size() > shared_->options.maxHeaderBytes) {
        return refuse({400, "Request header over " +
                                std::to_string(shared_->options.maxHeaderBytes) + " bytes"});
      }
      break;
    }
    if (ec == http::error::body_limit) return refuse(bodyTooLarge(shared_->options.maxBodyBytes));
    if (ec == http::error::header_limit) {
      return refuse({400, "Request header over " + std::to_string(shared_->options.maxHeaderBytes) +
                              " bytes"});
    }
    if (ec) return refuse({400, "Malformed HTTP request: " + ec.message()});
    if (!hadHeader && parser_->is_header_done() && !onHeader()) return;
    if (parser_->is_done()) return dispatch();
    if (used == 0) break;
  }
  read();
}

bool HttpConnection::onHeader() {
  const auto& header = parser_->get();
  method_ = std::string(header.method_string());
  target_ = std::string(header.target());
  version_ = header.version();
  if (auto refusal = checkHeader(header.base())) {
    refuse(*refusal);
    return false;
  }
  phase_ = Phase::body;
  deadline_ = Clock::now() + shared_->options.bodyTimeout;
  parser_->eager(true);
  if (!parser_->is_done() && version_ == 11 && !continueSent_ &&
      beast::iequals(header[http::field::expect], "100-continue")) {
    continueSent_ = true;
    stream_.expires_after(shared_->options.writeTimeout);
    net::async_write(stream_, net::buffer(kContinue.data(), kContinue.size()),
                     [self = shared_from_this()](beast::error_code ec, size_t) {
                       if (self->closed_) return;
                       if (ec) return self->close();
                       self->feed();
                     });
    return false;
  }
  return true;
}

void HttpConnection::dispatch() {
  phase_ = Phase::handling;
  const bool keepAlive = parser_->get().keep_alive();
  std::variant<Request, HttpRefusal> built =
      toRequest(parser_->release(), shared_->options.maxBodyBytes);
  if (auto* refusal = std::get_if<HttpRefusal>(&built)) return refuse(*refusal);
  auto request = std::make_shared<Request>(std::move(std::get<Request>(built)));
  bodyBytes_ = request->body.size();
  auto run = [self = shared_from_this(), request, keepAlive] {
    Answer a;
    std::string note;
    try {
      a = self->shared_->handler(*request);
    } catch (const std::exception& e) {
      // A route must not throw; if one does, the client still gets an answer.
      a = Answer(500, Json{{"errorMessage", "Internal error"}});
      note = std::string("handler threw: ") + e.what();
    } catch (...) {
      a = Answer(500, Json{{"errorMessage", "Internal error"}});
      note = "handler threw";
    }
    return std::make_tuple(std::move(a), keepAlive, std::move(note));
  };
  if (!shared_->handlers) {  // handlers run on the I/O threads
    auto [a, keep, note] = run();
    return answer(a, !keep, note);
  }
  net::post(*shared_->handlers, [self = shared_from_this(), run = std::move(run)] {
    auto result = run();
    net::post(self->stream_.get_executor(), [self, result = std::move(result)] {
      self->answer(std::get<0>(result), !std::get<1>(result), std::get<2>(result));
    });
  });
}

void HttpConnection::answer(const Answer& a, bool close, const std::string& reason) {
  if (closed_) return;
  phase_ = Phase::writing;
  close = close || shared_->stopping;
  response_ = {};
  response_.version(version_ == 10 ? 10 : 11);
  response_.result(static_cast<unsigned>(a.status));
  response_.set(http::field::content_type, "application/json");
  for (const auto& [name, value] : a.headers) response_.set(name, value);
  response_.body() =
      a.text.empty() ? a.body.dump(-1, ' ', false, Json::error_handler_t::replace) : a.text;
  response_.keep_alive(!close);
  response_.prepare_payload();
  stream_.expires_after(shared_->options.writeTimeout);
  http::async_write(stream_, response_,
                    [self = shared_from_this(), close, reason](beast::error_code ec, size_t) {
                      self->onWritten(ec, close, reason);
                    });
}

void HttpConnection::onWritten(beast::error_code ec, bool close, const std::string& reason) {
  if (closed_) return;
  if (ec) {
    logRequest(response_.result_int(), "answer not delivered: " + ec.message());
    return this->close();
  }
  logRequest(response_.result_int(), reason);
  if (!close) return nextRequest();
  // A refused request may have left bytes unread; a finished one closes at once.
  if (phase_ == Phase::lingering) return linger();
  beast::error_code ignored;
  stream_.socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
  this->close();
}

void HttpConnection::refuse(const HttpRefusal& refusal) {
  if (method_.empty() && parser_) {
    // Refused before its header was complete: what the parser read of the request line.
    method_ = std::string(parser_->get().method_string());
    target_ = std::string(parser_->get().target());
  }
  answer(Answer(refusal.status, Json{{"errorMessage", refusal.message}}), true, refusal.message);
  phase_ = Phase::lingering;
}

void HttpConnection::linger() {
  beast::error_code ignored;
  stream_.socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
  deadline_ = Clock::now() + kLingerTime;
  lingered_ = 0;
  buffer_.clear();
  drain();
}

void HttpConnection::drain() {
  stream_.expires_at(deadline_);
  stream_.async_read_some(buffer_.prepare(kReadChunk),
                          [self = shared_from_this()](beast::error_code ec, size_t bytes) {
                            if (self->closed_) return;
                            self->lingered_ += bytes;
                            if (ec || self->lingered_ > kLingerBytes) return self->close();
                            self->drain();
                          });
}

void HttpConnection::logRequest(int status, const std::string& note) {
  if (!shared_->options.logRequests || !shared_->options.log) return;
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
  char numbers[160];
  std::snprintf(numbers, sizeof numbers, " %d %zu bytes in, %zu bytes out, %.2f ms", status,
                bodyBytes_, status ? response_.body().size() : size_t{0}, ms);
  std::string line = method_.empty() ? "-" : escapeForLog(method_, 32);
  line += ' ';
  line += target_.empty() ? "-" : escapeForLog(target_);
  line += numbers;
  if (!note.empty()) line += " (" + escapeForLog(note) + ")";
  shared_->log(line);
}

}  // namespace omra::server
