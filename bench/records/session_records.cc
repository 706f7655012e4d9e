#include "bench/records/session_records.h"

#include <cstdio>
#include <map>

#include "omrakit/settings.h"
#include "server/server.h"
#include "sim/scenario.h"
#include "src/cloud/record_tables.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/memory_record_store.h"
#include "tests/e2e/ingest_rig_testutil.h"
#include "tools/runner/session_driver.h"

namespace omra::bench {

double SessionRecords::recordsPerSecond() const {
  return scanSeconds > 0 ? static_cast<double>(records.size()) / scanSeconds : 0;
}

double SessionRecords::bytesPerSecond() const {
  size_t bytes = 0;
  for (const SessionRecord& r : records) bytes += itemToJson(r.item).dump().size();
  return scanSeconds > 0 ? static_cast<double>(bytes) / scanSeconds : 0;
}

std::optional<SessionRecords> recordSimulatedSession(double mappingSeconds, std::string* error) {
  OmraSettings::BUILD_HEAVY_MAP = true;
  sim::ScenarioOptions scenarioOptions;
  scenarioOptions.seed = 3;
  scenarioOptions.mappingSeconds = mappingSeconds;
  const sim::Scenario scenario = sim::makeScenario(scenarioOptions);
  auto kitStore = std::make_shared<MemoryRecordStore>();
  auto serverStore = std::make_shared<MemoryRecordStore>();
  if (ensureRecordTables(*kitStore) || ensureRecordTables(*serverStore)) {
    *error = "cannot create the record tables";
    return std::nullopt;
  }
  auto capture = std::make_shared<testing::CapturingStore>(kitStore);
  server::ServerOptions serverOptions;
  serverOptions.store = serverStore;
  serverOptions.log = [](std::string_view) {};
  server::Server server(std::move(serverOptions));
  if (!server.start(error)) return std::nullopt;
  tools::DriveResult drive;
  {
    tools::KitServices services = tools::makeKitServices(capture, server.baseUrl());
    tools::DriveOptions options;
    options.mode = SessionMode::mapping;
    options.speed = 1;
    drive = tools::driveSession(services, scenario.mapping, options);
  }
  server.stop();
  SessionRecords out;
  for (testing::CapturingStore::Saved& s : capture->saved()) {
    out.records.push_back({s.seconds, std::move(s.table), std::move(s.item)});
  }
  out.framesFed = drive.framesFed;
  out.scanSeconds = drive.scanSeconds;
  if (!drive.opened() || out.records.empty() || out.scanSeconds <= 0) {
    *error = "the simulated session recorded nothing";
    return std::nullopt;
  }
  return out;
}

void printSessionRates(const SessionRecords& session) {
  std::map<std::string, std::pair<size_t, size_t>> perTable;  // records, JSON bytes
  for (const SessionRecord& r : session.records) {
    perTable[r.table].first += 1;
    perTable[r.table].second += itemToJson(r.item).dump().size();
  }
  std::printf("simulated session: %zu frames over %.1f s, %zu records\n", session.framesFed,
              session.scanSeconds, session.records.size());
  for (const auto& [table, counts] : perTable) {
    std::printf("  %-28s %7.2f records/s %9.1f KB/s\n", table.c_str(),
                static_cast<double>(counts.first) / session.scanSeconds,
                static_cast<double>(counts.second) / session.scanSeconds / 1024);
  }
}

}  // namespace omra::bench
