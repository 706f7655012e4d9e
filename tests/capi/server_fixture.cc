// Starts the reference back end in process for the plain-C test, behind a C interface.
#include "tests/capi/server_fixture.h"

#include <memory>
#include <string>

#include "server/server.h"
#include "src/platform/store/record_store_factory.h"

namespace {
std::unique_ptr<omra::server::Server> g_server;
std::string g_url;
}  // namespace

extern "C" const char* omra_test_server_start(void) {
  omra::server::ServerOptions options;
  options.storeSpec = "memory";
  options.store = omra::makeRecordStore(options.storeSpec, options.aws, nullptr, nullptr);
  options.logRequests = false;
  g_server = std::make_unique<omra::server::Server>(std::move(options));
  if (!g_server->start()) return nullptr;
  g_url = "http://127.0.0.1:" + std::to_string(g_server->port());
  return g_url.c_str();
}

extern "C" void omra_test_server_stop(void) {
  if (g_server) g_server->stop();
  g_server.reset();
}
