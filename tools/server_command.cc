#include <cstdio>

#include "tools/commands.h"
#ifdef OMRA_HAVE_SERVER
#include "server/server.h"
#endif

namespace omra::tools {

int runServer(const ServerCommandOptions& options) {
#ifdef OMRA_HAVE_SERVER
  server::ServerOptions s;
  s.host = options.host;
  s.port = options.port;
  s.storeSpec = options.store;
  return server::runServerCommand(std::move(s));
#else
  (void)options;
  std::fprintf(stderr, "omra server: this build has no omra-server\n");
  return 2;
#endif
}

int runCreateTables(const std::string& store) {
#ifdef OMRA_HAVE_SERVER
  return server::createTablesCommand(store);
#else
  (void)store;
  std::fprintf(stderr, "omra create-tables: this build has no omra-server\n");
  return 2;
#endif
}

}  // namespace omra::tools
