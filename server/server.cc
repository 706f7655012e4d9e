#include "server/server.h"

#include <cstdio>

#include "server/http_server.h"
#include "server/map_service.h"
#include "server/server_tables.h"

namespace omra::server {

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

  HttpOptions h;
  h.host = options_.host;
  h.port = options_.port;
  h.ioThreads = options_.ioThreads;
  h.handlerThreads = options_.httpThreads;
  h.maxConnections = options_.maxConnections;
  h.maxBodyBytes = options_.maxBodyBytes;
  h.idleTimeout = std::chrono::seconds(options_.keepAliveSeconds);
  h.headerTimeout = std::chrono::milliseconds(options_.headerTimeoutMs);
  h.bodyTimeout = std::chrono::milliseconds(options_.bodyTimeoutMs);
  h.writeTimeout = std::chrono::milliseconds(options_.writeTimeoutMs);
  h.logRequests = options_.logRequests;
  h.log = [this](std::string_view line) { log(line); };
  MapService* svc = service_.get();
  http_ = std::make_unique<HttpServer>(std::move(h),
                                       [svc](const Request& r) { return svc->handle(r); });
  std::string why;
  if (!http_->start(&why)) {
    http_.reset();  // nothing to stop later
    jobs_->stop();
    return fail(why);
  }
  port_ = http_->port();
  log("listening on " + baseUrl());
  return true;
}

void Server::stop() {
  std::call_once(stopped_, [this] {
    if (!http_) return;
    http_->stop();
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
