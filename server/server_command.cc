#include <pthread.h>
#include <signal.h>

#include <cstdio>

#include "server/server.h"
#include "server/server_process.h"
#include "server/server_tables.h"
#include "src/platform/store/record_store_factory.h"

namespace omra::server {

int runServerCommand(ServerOptions options) {
  // Block the stop signals before any thread exists, so that every thread inherits the mask and
  // only the sigwait below sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &stopSignals, &previous);
  struct RestoreMask {
    sigset_t mask;
    ~RestoreMask() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } restore{previous};

  if (!options.store) {
    std::string error;
    options.store = makeRecordStore(options.storeSpec, options.aws, nullptr, &error);
    if (!options.store) {
      std::fprintf(stderr, "omra-server: cannot open store %s: %s\n", options.storeSpec.c_str(),
                   error.c_str());
      return 1;
    }
  }
  raiseOpenFileLimit();
  tuneMallocForServer();
  Server server(std::move(options));
  std::string error;
  if (!server.start(&error)) return 1;
  int signal = 0;
  sigwait(&stopSignals, &signal);
  std::fprintf(stderr, "omra-server: %s received, stopping\n",
               signal == SIGINT ? "SIGINT" : "SIGTERM");
  server.stop();
  return 0;
}

int createTablesCommand(const std::string& storeSpec, const AwsSettings& aws) {
  std::string error;
  auto store = makeRecordStore(storeSpec, aws, nullptr, &error);
  if (!store) {
    std::fprintf(stderr, "cannot open store %s: %s\n", storeSpec.c_str(), error.c_str());
    return 1;
  }
  if (auto e = createAllTables(*store)) {
    std::fprintf(stderr, "cannot create tables in %s: %s\n", storeSpec.c_str(), e->message.c_str());
    return 1;
  }
  for (const TableSchema& t : allTableSchemas()) std::printf("table %s ready\n", t.name.c_str());
  return 0;
}

}  // namespace omra::server
