// omra: the command-line entry to the simulator, recordings and omra-server.
#include <CLI/CLI.hpp>

#include "tools/commands.h"

int main(int argc, char** argv) {
  CLI::App app{"omra: simulated AR sessions, recordings and the omra-server back end"};
  app.require_subcommand(1);

  omra::tools::RecordOptions record;
  CLI::App* recordCmd =
      app.add_subcommand("record", "Simulate one session of a scene and write it as a recording");
  recordCmd
      ->add_option("--seed", record.seed, "Scene seed (the room and both sessions derive from it)")
      ->required();
  recordCmd->add_option("--session", record.role, "Which session: mapping or localization")
      ->check(CLI::IsMember({"mapping", "localization"}));
  recordCmd
      ->add_option("--seconds", record.seconds,
                   "Length of the scan (default: 30 mapping, 20 localization)")
      ->check(CLI::Range(0.1, 3600.0));
  recordCmd->add_option("FILE", record.path, "Recording to write (JSON lines)")->required();

  std::string inspectPath;
  CLI::App* inspectCmd = app.add_subcommand("inspect", "Check a recording and summarise it");
  inspectCmd->add_option("FILE", inspectPath, "Recording to read")->required();

  omra::tools::ServerCommandOptions server;
  CLI::App* serverCmd = app.add_subcommand("server", "Run omra-server until SIGINT or SIGTERM");
  serverCmd->add_option("--port", server.port, "Port to listen on (0: any free port)")
      ->check(CLI::Range(0, 65535));
  serverCmd->add_option("--host", server.host, "Address to bind");
  serverCmd->add_option("--store", server.store, "sqlite:PATH, dynamodb:URL or memory");

  std::string tablesStore;
  CLI::App* tablesCmd =
      app.add_subcommand("create-tables", "Create the record and server tables in a store");
  tablesCmd->add_option("--store", tablesStore, "sqlite:PATH, dynamodb:URL or memory")->required();

  CLI::App* demoCmd =
      app.add_subcommand("demo", "Mapping and localization sessions against an embedded back end");
  std::string replayPath;
  CLI::App* replayCmd =
      app.add_subcommand("replay", "Replay a recording through the kit against a back end");
  replayCmd->add_option("FILE", replayPath, "Recording to replay")->required();

  CLI11_PARSE(app, argc, argv);
  if (*recordCmd) return omra::tools::runRecord(record);
  if (*inspectCmd) return omra::tools::runInspect(inspectPath);
  if (*serverCmd) return omra::tools::runServer(server);
  if (*tablesCmd) return omra::tools::runCreateTables(tablesStore);
  if (*demoCmd) return omra::tools::runDemo();
  if (*replayCmd) return omra::tools::runReplay(replayPath);
  return 1;
}
