#include "tests/server/store_kinds_testutil.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>

#include "server/server_tables.h"
#include "src/platform/store/dynamodb_record_store.h"
#include "src/platform/store/memory_record_store.h"
#include "src/platform/store/sqlite_record_store.h"
#include "tests/platform/store/dynalite_testutil.h"

namespace omra::server::testing {

std::vector<StoreKind> allStoreKinds() { return {{"memory"}, {"sqlite"}, {"dynamodb"}}; }

std::shared_ptr<RecordStore> openStoreKind(const StoreKind& kind, std::string* why) {
  std::shared_ptr<RecordStore> store;
  const std::string name = kind.name;
  if (name == "memory") {
    store = std::make_shared<MemoryRecordStore>();
  } else if (name == "sqlite") {
    static std::atomic<int> serial{0};
    const auto dir =
        std::filesystem::temp_directory_path() /
        ("omra-server-store-" + std::to_string(::getpid()) + "-" + std::to_string(serial++));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    store = SqliteRecordStore::open((dir / "server.db").string(), why);
  } else {
    auto* server = omra::testing::sharedDynalite(why);
    if (server == nullptr) return nullptr;
    DynamoDbRecordStore::Options o;
    o.endpoint = server->endpoint();
    o.backoffBase = std::chrono::milliseconds(5);
    store = std::make_shared<DynamoDbRecordStore>(o, nullptr);
  }
  if (!store) return nullptr;
  if (auto e = createAllTables(*store)) {
    *why = e->message;
    return nullptr;
  }
  return store;
}

}  // namespace omra::server::testing
