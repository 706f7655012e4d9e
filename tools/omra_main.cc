// omra: the command-line entry to the simulator, recordings and omra-server.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/version.h"
#include "tools/commands.h"

int main(int argc, char** argv) {
  // Installed as omra-server too: under that name it is `omra server`.
  std::vector<char*> args(argv, argv + argc);
  const std::string_view self = argc > 0 ? std::string_view(argv[0]) : std::string_view();
  const size_t slash = self.rfind('/');
  char serverWord[] = "server";
  if (self.substr(slash == std::string_view::npos ? 0 : slash + 1) == "omra-server") {
    args.insert(args.begin() + 1, serverWord);
  }
  argc = static_cast<int>(args.size());
  argv = args.data();

  CLI::App app{"omra: simulated AR sessions, recordings and the omra-server back end"};
  app.set_version_flag("--version", std::string("omra ") + omra::OMRA_POD_VERSION);
  // Every option's default is shown in --help.
  app.option_defaults()->always_capture_default();
  app.footer(
      "Start with `omra demo`: a mapping and a localization session against an embedded back "
      "end.\nRun `omra SUBCOMMAND --help` for a subcommand's options.");

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
  omra::tools::addSceneConditionOptions(*recordCmd, record.conditions);

  std::string inspectPath;
  CLI::App* inspectCmd = app.add_subcommand("inspect", "Check a recording and summarise it");
  inspectCmd->add_option("FILE", inspectPath, "Recording to read")->required();

  omra::tools::ServerCommandOptions server;
  CLI::App* serverCmd = app.add_subcommand("server", "Run omra-server until SIGINT or SIGTERM");
  serverCmd->add_option("--port", server.port, "Port to listen on (0: any free port)")
      ->check(CLI::Range(0, 65535));
  serverCmd->add_option("--host", server.host, "Address to bind");
  serverCmd->add_option("--store", server.store, "sqlite:PATH, dynamodb:URL or memory");
  serverCmd->add_option("--allow-key", server.allowKeys,
                        "Serve only this account (developer-key digest); repeatable");
  serverCmd->add_option("--allow-keys-file", server.allowKeysFile,
                        "Serve only the accounts in this file (one digest a line, # comments)");
  serverCmd
      ->add_option("--requests-per-second", server.requestsPerSecond,
                   "Sustained requests per account and second (0: no limit)")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  serverCmd->add_option("--request-burst", server.requestBurst, "Requests an account may burst")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  serverCmd
      ->add_option("--bytes-per-second", server.bytesPerSecond,
                   "Sustained request-body bytes per account and second (0: no limit)")
      ->capture_default_str();
  serverCmd->add_option("--byte-burst", server.byteBurst, "Request-body bytes an account may burst")
      ->capture_default_str();

  std::string tablesStore;
  CLI::App* tablesCmd =
      app.add_subcommand("create-tables", "Create the record and server tables in a store");
  tablesCmd->add_option("--store", tablesStore, "sqlite:PATH, dynamodb:URL or memory")->required();

  omra::tools::DemoOptions demo;
  CLI::App* demoCmd =
      app.add_subcommand("demo", "Mapping and localization sessions against an embedded back end");
  demoCmd->add_option("--seed", demo.seed, "Scene seed");
  demoCmd->add_option(
      "--store", demo.store,
      "sqlite:PATH, dynamodb:URL or memory (default: a fresh temporary SQLite file)");
  demoCmd->add_option("--svg", demo.svg, "Where to write the top-down picture");
  demoCmd->add_option("--html", demo.html,
                      "Where to write the HTML report (default: report.html beside the picture)");
  demoCmd->add_flag("--verbose", demo.verbose, "Also print the kit's and the server's log lines");
  omra::tools::addSceneConditionOptions(*demoCmd, demo.conditions);
  omra::tools::ReplayOptions replay;
  CLI::App* replayCmd =
      app.add_subcommand("replay", "Replay a recording through the kit against a back end");
  replayCmd->add_option("FILE", replay.path, "Recording to replay")->required();
  replayCmd->add_option("--server", replay.server,
                        "Back end base URL, e.g. http://127.0.0.1:8080 (default: in process)");
  replayCmd->add_option("--store", replay.store,
                        "Store of the in-process back end, without --server: sqlite:PATH, "
                        "dynamodb:URL or memory (default: memory)");
  replayCmd->add_option("--outbox", replay.outbox,
                        "The kit's record outbox file (default: "
                        "$XDG_STATE_HOME/omrakit/com.omra.replay/record-outbox.db)");
  replayCmd
      ->add_option("--session", replay.mode, "mapping or localization (default: the recording's)")
      ->check(CLI::IsMember({"mapping", "localization"}));
  replayCmd->add_option("--map", replay.mapID, "Map identifier");
  replayCmd
      ->add_option("--speed", replay.speed,
                   "Pace relative to the recording: 1 is real time, 0 no waiting (the kit then "
                   "drops most frames)")
      ->check(CLI::Range(0.0, 1000.0));
  replayCmd->add_flag("--place", replay.place,
                      "Mapping: place three assets on the recording's room objects (simulated "
                      "recordings), so that a localization replay can bring them back");
  replayCmd->add_option("--timeout", replay.timeoutSeconds, "Seconds to wait for the back end")
      ->check(CLI::Range(0.5, 600.0));

  CLI11_PARSE(app, argc, argv);
  if (app.get_subcommands().empty()) {
    // A bare `omra` is a question: answer with the help, as a usage error.
    std::cerr << app.help();
    return 2;
  }
  if (*recordCmd) return omra::tools::runRecord(record);
  if (*inspectCmd) return omra::tools::runInspect(inspectPath);
  if (*serverCmd) return omra::tools::runServer(server);
  if (*tablesCmd) return omra::tools::runCreateTables(tablesStore);
  if (*demoCmd) return omra::tools::runDemo(demo);
  if (*replayCmd) return omra::tools::runReplay(replay);
  return 1;
}
