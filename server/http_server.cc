#include "server/http_server.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <thread>
#include <vector>

#include "server/http_connection.h"

namespace omra::server {
namespace net = boost::asio;
using tcp = net::ip::tcp;

struct HttpServer::Impl {
  explicit Impl(std::shared_ptr<HttpShared> s)
      : shared(std::move(s)), acceptor(net::make_strand(ioc)), retry(acceptor.get_executor()) {}

  void accept();
  void onAccept(boost::system::error_code ec, tcp::socket socket);
  void logThrottled(const std::string& line);

  std::shared_ptr<HttpShared> shared;
  // Destroyed in reverse: the handler pool before the I/O context its connections' sockets use.
  net::io_context ioc;
  std::optional<net::thread_pool> handlers;
  tcp::acceptor acceptor;
  net::steady_timer retry;
  std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
  std::vector<std::thread> threads;
  std::atomic<int> port{0};
  std::atomic<bool> started{false};
  std::once_flag stopped;
  std::chrono::steady_clock::time_point lastRefusalLog;  // on the acceptor's strand
};

void HttpServer::Impl::accept() {
  acceptor.async_accept(net::make_strand(ioc),
                        [this](boost::system::error_code ec, tcp::socket socket) {
                          onAccept(ec, std::move(socket));
                        });
}

void HttpServer::Impl::logThrottled(const std::string& line) {
  const auto now = std::chrono::steady_clock::now();
  if (now - lastRefusalLog < std::chrono::seconds(1)) return;
  lastRefusalLog = now;
  shared->log(line);
}

void HttpServer::Impl::onAccept(boost::system::error_code ec, tcp::socket socket) {
  if (ec == net::error::operation_aborted || shared->stopping) return;
  if (ec) {
    // Out of descriptors or memory: wait a little instead of spinning on accept.
    logThrottled("accept failed: " + ec.message());
    retry.expires_after(std::chrono::milliseconds(50));
    retry.async_wait([this](boost::system::error_code e) {
      if (!e && !shared->stopping) accept();
    });
    return;
  }
  std::shared_ptr<HttpConnection> connection;
  {
    std::lock_guard lock(shared->mu);
    if (shared->open.size() < shared->options.maxConnections) {
      connection = std::make_shared<HttpConnection>(std::move(socket), shared);
      shared->open.emplace(connection.get(), connection);
    }
  }
  if (connection) {
    connection->start();
  } else {
    boost::system::error_code ignored;
    socket.close(ignored);
    logThrottled("connection refused: " + std::to_string(shared->options.maxConnections) +
                 " connections open");
  }
  accept();
}

HttpServer::HttpServer(HttpOptions options, Handler handler) {
  auto shared = std::make_shared<HttpShared>();
  shared->options = std::move(options);
  shared->handler = std::move(handler);
  impl_ = std::make_unique<Impl>(std::move(shared));
}

HttpServer::~HttpServer() { stop(); }

int HttpServer::port() const { return impl_->port.load(); }

size_t HttpServer::openConnections() const {
  std::lock_guard lock(impl_->shared->mu);
  return impl_->shared->open.size();
}

bool HttpServer::start(std::string* error) {
  Impl& s = *impl_;
  const HttpOptions& o = s.shared->options;
  auto fail = [&](const std::string& why) {
    if (error) *error = why;
    return false;
  };
  if (s.started.exchange(true)) return fail("The HTTP server was started already");
  const std::string where = o.host + ":" + std::to_string(o.port);
  boost::system::error_code ec;
  tcp::endpoint endpoint;
  net::ip::address address = net::ip::make_address(o.host, ec);
  if (!ec) {
    endpoint = tcp::endpoint(address, static_cast<unsigned short>(o.port));
  } else {
    tcp::resolver resolver(s.ioc);
    auto found = resolver.resolve(o.host, std::to_string(o.port), ec);
    if (ec || found.empty()) return fail("Cannot resolve " + o.host + ": " + ec.message());
    endpoint = found.begin()->endpoint();
  }
  // SO_REUSEADDR only lets a restart bind past connections in TIME_WAIT; without
  // SO_REUSEPORT a port that another socket listens on fails here.
  s.acceptor.open(endpoint.protocol(), ec);
  if (!ec) s.acceptor.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec) s.acceptor.bind(endpoint, ec);
  if (!ec) s.acceptor.listen(net::socket_base::max_listen_connections, ec);
  if (ec) {
    boost::system::error_code ignored;
    s.acceptor.close(ignored);
    return fail("Cannot bind " + where + ": " + ec.message());
  }
  s.port = s.acceptor.local_endpoint(ec).port();
  if (o.handlerThreads > 0) {
    s.handlers.emplace(static_cast<size_t>(o.handlerThreads));
    s.shared->handlers = &*s.handlers;
  }
  s.work.emplace(s.ioc.get_executor());
  net::post(s.acceptor.get_executor(), [&s] { s.accept(); });
  for (int i = 0; i < std::max(1, o.ioThreads); ++i) {
    s.threads.emplace_back([&s] { s.ioc.run(); });
  }
  return true;
}

void HttpServer::stop() {
  Impl& s = *impl_;
  std::call_once(s.stopped, [&s] {
    if (s.threads.empty()) return;
    s.shared->stopping = true;
    net::post(s.acceptor.get_executor(), [&s] {
      boost::system::error_code ignored;
      s.acceptor.close(ignored);
      s.retry.cancel();
    });
    std::vector<std::shared_ptr<HttpConnection>> open;
    {
      std::lock_guard lock(s.shared->mu);
      for (auto& [key, weak] : s.shared->open) {
        if (auto c = weak.lock()) open.push_back(std::move(c));
      }
    }
    for (auto& c : open) c->abort();
    open.clear();  // outside the lock: this may drop the last reference
    {
      // Connections go once their closed sockets' operations complete; a handler still
      // running keeps its connection until it returns.
      std::unique_lock lock(s.shared->mu);
      s.shared->drained.wait_for(lock, std::chrono::seconds(2),
                                 [&] { return s.shared->open.empty(); });
    }
    if (s.handlers) {
      s.handlers->stop();
      s.handlers->join();
    }
    s.work.reset();
    s.ioc.stop();
    for (std::thread& t : s.threads) t.join();
  });
}

}  // namespace omra::server
