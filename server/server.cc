#include "server/server.h"

#include <httplib.h>
#include <sys/socket.h>

#include <cctype>
#include <chrono>
#include <cstdio>

#include "server/map_service.h"
#include "server/server_tables.h"

namespace omra::server {
namespace {

// When the current request started, for the log line (each request runs on one thread).
thread_local std::chrono::steady_clock::time_point requestStart;

void reply(httplib::Response& res, const Answer& a) {
  res.status = a.status;
  for (const auto& [name, value] : a.headers) res.set_header(name, value);
  res.set_content(a.body.dump(), "application/json");
}

}  // namespace

struct Server::Http {
  httplib::Server server;
};

Server::Server(ServerOptions options) : options_(std::move(options)) {}

Server::~Server() { stop(); }

void Server::log(std::string_view line) const {
  if (options_.log) {
    options_.log(line);
  } else {
    std::fprintf(stderr, "omra-server: %.*s\n", static_cast<int>(line.size()), line.data());
  }
}

std::string Server::baseUrl() const {
  return "http://" + options_.host + ":" + std::to_string(port());
}

bool Server::start(std::string* error) {
  auto fail = [&](const std::string& why) {
    log(why);
    if (error) *error = why;
    return false;
  };
  if (http_) return fail("The server was started already");
  if (!options_.store) return fail("No record store");
  if (options_.createTables) {
    if (auto e = createAllTables(*options_.store))
      return fail("Cannot create tables: " + e->message);
  }
  jobs_ = std::make_unique<JobRunner>(options_.jobWorkers);
  MapServiceOptions serviceOptions;
  serviceOptions.allowedDeveloperKeys = std::move(options_.allowedDeveloperKeys);
  serviceOptions.quotas = options_.quotas;
  serviceOptions.localizers = options_.localizers;
  serviceOptions.log = [this](std::string_view line) { log(line); };
  service_ = std::make_unique<MapService>(*options_.store, *jobs_, std::move(serviceOptions));
  http_ = std::make_unique<Http>();
  httplib::Server& s = http_->server;

  const int threads = options_.httpThreads > 0 ? options_.httpThreads : 1;
  s.new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
  s.set_tcp_nodelay(true);  // answers go out in two writes: no waiting for delayed ACKs
  s.set_keep_alive_max_count(1000);
  s.set_keep_alive_timeout(options_.keepAliveSeconds);
  s.set_payload_max_length(options_.maxBodyBytes);
  // The library listens with a backlog of 5, which drops connections when many clients arrive at
  // once: remember the listening socket to widen its backlog after binding.
  auto listenSocket = std::make_shared<std::atomic<int>>(-1);
  s.set_socket_options([listenSocket](socket_t sock) {
    httplib::default_socket_options(sock);
    listenSocket->store(sock);
  });
  s.set_pre_routing_handler([](const httplib::Request&, httplib::Response&) {
    requestStart = std::chrono::steady_clock::now();
    return httplib::Server::HandlerResponse::Unhandled;
  });
  // Every error the library answers by itself gets a JSON body that says what is wrong; a body
  // over the limit is a bad request like any other.
  const size_t maxBody = options_.maxBodyBytes;
  s.set_error_handler(httplib::Server::HandlerWithResponse(
      [maxBody](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        Answer a;
        if (res.status == 413) {
          a = MapService::error(400, "Request body over " + std::to_string(maxBody) + " bytes");
        } else if (res.status == 404) {
          a = MapService::error(404, "Unknown route " + req.method + " " + req.path);
        } else {
          a = MapService::error(res.status, "Bad request");
        }
        reply(res, a);
        return httplib::Server::HandlerResponse::Handled;
      }));
  if (options_.logRequests) {
    s.set_logger([this](const httplib::Request& req, const httplib::Response& res) {
      const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::steady_clock::now() - requestStart)
                          .count();
      char line[512];
      std::snprintf(line, sizeof line, "%s %s %d %zu bytes in, %zu bytes out, %.2f ms",
                    req.method.c_str(), req.path.c_str(), res.status, req.body.size(),
                    res.body.size(), static_cast<double>(us) / 1000.0);
      log(line);
    });
  }

  MapService* svc = service_.get();
  auto handler = [svc](const httplib::Request& req, httplib::Response& res) {
    Request request;
    request.method = req.method;
    request.path = req.path;
    for (const auto& [name, value] : req.params) request.query.emplace(name, value);
    for (const auto& [name, value] : req.headers) {
      std::string lower = name;
      for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      request.headers.emplace(std::move(lower), value);
    }
    request.body = req.body;
    reply(res, svc->handle(request));
  };
  s.Get(".*", handler);
  s.Post(".*", handler);
  s.Put(".*", handler);
  s.Delete(".*", handler);
  s.Patch(".*", handler);

  int bound = options_.port == 0
                  ? s.bind_to_any_port(options_.host)
                  : (s.bind_to_port(options_.host, options_.port) ? options_.port : -1);
  if (bound <= 0) {
    jobs_->stop();
    return fail("Cannot bind " + options_.host + ":" + std::to_string(options_.port));
  }
  port_ = bound;
  if (listenSocket->load() >= 0) ::listen(listenSocket->load(), SOMAXCONN);
  listener_ = std::thread([&s] { s.listen_after_bind(); });
  // stop() only reaches a listener that runs: wait for it, so that an early stop is not lost.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!s.is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  if (!s.is_running()) {
    s.stop();
    listener_.join();
    jobs_->stop();
    return fail("The listener did not start on " + baseUrl());
  }
  log("listening on " + baseUrl());
  return true;
}

void Server::stop() {
  std::call_once(stopped_, [this] {
    if (!http_) return;
    http_->server.stop();
    if (listener_.joinable()) listener_.join();
    jobs_->stop();
    const JobRunner::Stats st = jobs_->stats();
    log("stopped; localizer runs " + std::to_string(st.runs) + ", folded triggers " +
        std::to_string(st.folded) + ", dropped " + std::to_string(st.dropped));
  });
}

void Server::waitForJobs() {
  if (jobs_) jobs_->waitIdle();
}

JobRunner::Stats Server::jobStats() const { return jobs_ ? jobs_->stats() : JobRunner::Stats{}; }

}  // namespace omra::server
