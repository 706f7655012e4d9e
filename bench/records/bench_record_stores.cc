// Save throughput of the SQLite store (batched transactions on its writer thread) and of the
// DynamoDB store against a local dynalite, side by side, with camera-path records (20 poses each).
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/record_tables.h"
#include "src/platform/store/dynamodb_record_store.h"
#include "src/platform/store/sqlite_record_store.h"
#include "tests/platform/store/dynalite_testutil.h"

namespace {

using namespace omra;

// Items per second for n saves of the same realistic record under distinct keys.
template <class Store>
double saveRate(Store& store, int n, int* failures) {
  std::map<std::string, std::string> poses;
  Matrix4x4 m;
  for (int f = 0; f < 20; ++f) {
    m.columns[3] = {0.01f * f, 1.4f, -0.02f * f, 1};
    poses[std::to_string(f)] = CameraPathModelQueue::poseText(m);
  }
  std::atomic<int> failed{0};
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    store.save(CameraPathModel::kTableName, CameraPathModel("BENCH", i * 20, poses).toItem(),
               [&](std::optional<StoreError> e) { failed += e.has_value(); });
  }
  store.waitForSaves();
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  *failures = failed;
  return n / s;
}

}  // namespace

int main() {
  const auto dir =
      std::filesystem::temp_directory_path() / ("omra-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::string error;
  auto sqlite = SqliteRecordStore::open((dir / "records.db").string(), &error);
  if (!sqlite || ensureRecordTables(*sqlite)) {
    std::fprintf(stderr, "cannot open SQLite: %s\n", error.c_str());
    return 1;
  }
  int sqliteFailures = 0;
  const double sqliteRate = saveRate(*sqlite, 20000, &sqliteFailures);
  sqlite.reset();
  std::filesystem::remove_all(dir);

  auto server = omra::testing::DynaliteServer::start(&error);
  if (!server) {
    std::fprintf(stderr, "no dynalite: %s\n", error.c_str());
    return 1;
  }
  DynamoDbRecordStore::Options o;
  o.endpoint = server->endpoint();
  DynamoDbRecordStore dynamo(o, nullptr);
  if (auto e = ensureRecordTables(dynamo)) {
    std::fprintf(stderr, "cannot create tables: %s\n", e->message.c_str());
    return 1;
  }
  int dynamoFailures = 0;
  const double dynamoRate = saveRate(dynamo, 2000, &dynamoFailures);
  if (sqliteFailures != 0 || dynamoFailures != 0) {
    std::fprintf(stderr, "failed saves: sqlite %d, dynamodb %d\n", sqliteFailures, dynamoFailures);
    return 1;
  }
  std::printf("figure sqlite_store_save %.0f items/s\n", sqliteRate);
  std::printf("figure dynamodb_store_save_dynalite %.0f items/s\n", dynamoRate);
  std::printf("figure sqlite_vs_dynamodb_save %.1f ratio\n", sqliteRate / dynamoRate);
  return 0;
}
