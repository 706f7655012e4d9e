// The omra command's subcommands; each returns the process exit code (0 ok, 1 failed, 2 not
// available in this build). Called from the main thread only.
#pragma once

#include <cstdint>
#include <string>

namespace omra::tools {

struct RecordOptions {
  uint64_t seed = 1;
  std::string role = "mapping";  // "mapping" or "localization": which session of the scenario
  double seconds = 0;            // 0: the scenario's default for that session
  std::string path;
};

struct ServerCommandOptions {
  std::string host = "127.0.0.1";
  int port = 8080;
  std::string store = "sqlite:omra-server.db";
};

int runRecord(const RecordOptions& options);
int runInspect(const std::string& path);
int runServer(const ServerCommandOptions& options);
int runCreateTables(const std::string& store);
// The kit-driving commands; they report plainly that this build cannot run them yet.
int runDemo();
int runReplay(const std::string& path);

}  // namespace omra::tools
