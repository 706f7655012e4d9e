// The omra command's subcommands; each returns the process exit code (0 ok, 1 failed, 2 not
// available in this build). Called from the main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/scene_conditions.h"

namespace omra::tools {

struct RecordOptions {
  uint64_t seed = 1;
  std::string role = "mapping";  // "mapping" or "localization": which session of the scenario
  double seconds = 0;            // 0: the scenario's default for that session
  std::string path;
  SceneConditions conditions;
};

struct ServerCommandOptions {
  std::string host = "127.0.0.1";
  int port = 8080;
  std::string store = "sqlite:omra-server.db";
  std::vector<std::string> allowKeys;  // developer-key digests
  std::string allowKeysFile;           // one digest a line
  // Per-account quotas, the server's defaults; 0 turns one off.
  double requestsPerSecond = 200;
  double requestBurst = 2000;
  uint64_t bytesPerSecond = 32 << 20;
  uint64_t byteBurst = 256 << 20;
};

int runRecord(const RecordOptions& options);
int runInspect(const std::string& path);
int runServer(const ServerCommandOptions& options);
int runCreateTables(const std::string& store);
struct DemoOptions {
  uint64_t seed = 1;
  std::string store;  // empty: a SQLite file in a fresh temporary folder
  std::string svg;    // empty: omra-demo.svg in that folder
  std::string html;   // empty: report.html beside the picture
  bool verbose = false;
  SceneConditions conditions;
};

struct ReplayOptions {
  std::string path;
  std::string server;  // back end base URL; empty: omra-server in process
  // The in-process server's store (without --server); empty: memory. The kit itself always sends
  // its records to the back end's ingest route.
  std::string store;
  // The kit's record outbox; empty: the per-user default for the application "com.omra.replay".
  std::string outbox;
  std::string mode;  // "mapping" or "localization"; empty: the recording's own role
  std::string mapID = "omra-replay-map";
  double speed = 1;  // real time; 0: as fast as possible (the kit then drops most frames)
  double timeoutSeconds = 10;
  // Mapping: place three assets on the recording's room objects (needs the recording's truth).
  bool place = false;
};

// The kit-driving commands: a mapping and a localization session against an embedded back end,
// and one recording through the kit.
int runDemo(const DemoOptions& options);
int runReplay(const ReplayOptions& options);

}  // namespace omra::tools
