#include "src/platform/store/record_store_factory.h"

#include <cmath>

#include "src/platform/config_loader.h"
#include "src/platform/store/backend_record_store.h"
#include "src/platform/store/dynamodb_record_store.h"
#include "src/platform/store/memory_record_store.h"
#include "src/platform/store/sqlite_record_store.h"

namespace omra {
namespace {

bool isBackend(const std::string& target) {
  return target == "backend" || target.rfind("backend:", 0) == 0;
}

}  // namespace

std::shared_ptr<RecordStore> makeRecordStore(const std::string& target, const AwsSettings& aws,
                                             std::shared_ptr<Logger> logger, std::string* error) {
  if (target == "memory") return std::make_shared<MemoryRecordStore>();
  if (target.rfind("sqlite:", 0) == 0) {
    const std::string path = target.substr(7);
    if (path.empty()) {
      if (error != nullptr) *error = "the record store \"sqlite:\" names no file";
      return nullptr;
    }
    return SqliteRecordStore::open(path, error);
  }
  if (target == "dynamodb" || target.rfind("dynamodb:", 0) == 0) {
    DynamoDbRecordStore::Options options;
    options.endpoint = target.size() > 9 ? target.substr(9) : "";
    options.region = aws.region;
    options.accessKeyId = aws.accessKeyId;
    options.secretAccessKey = aws.secretAccessKey;
    options.sessionToken = aws.sessionToken;
    return std::make_shared<DynamoDbRecordStore>(std::move(options), std::move(logger));
  }
  if (error != nullptr) {
    *error = isBackend(target)
                 ? "the record store \"" + target + "\" is the kit's own (made with its Env)"
                 : "unknown record store \"" + target +
                       "\" (expected sqlite:PATH, dynamodb:URL or memory)";
  }
  return nullptr;
}

std::shared_ptr<RecordStore> makeRecordStore(const Config& config, const KitStoreServices& services,
                                             std::shared_ptr<Logger> logger, std::string* error) {
  if (!isBackend(config.recordStore)) {
    return makeRecordStore(config.recordStore, config.aws, std::move(logger), error);
  }
  BackendRecordStore::Options options;
  options.baseUrl = config.recordStore.size() > 8 ? config.recordStore.substr(8)
                                                  : config.endpoints.mapsProd + "/prod";
  while (!options.baseUrl.empty() && options.baseUrl.back() == '/') options.baseUrl.pop_back();
  if (!config.recordOutbox.empty()) {
    options.outboxPath = config.recordOutbox;
  } else if (auto path = defaultRecordOutboxPath(config, processEnv())) {
    options.outboxPath = *path;
  } else {
    if (error != nullptr) {
      *error =
          "no place for the record outbox: neither XDG_STATE_HOME nor HOME is set "
          "(set recordOutbox)";
    }
    return nullptr;
  }
  options.outboxMaxBytes =
      static_cast<size_t>(std::llround(config.recordOutboxMaxMegabytes * 1024 * 1024));
  options.closeTimeout =
      std::chrono::milliseconds(std::llround(config.recordFlushTimeoutSeconds * 1000));
  options.tables = services.recordTables;
  if (!services.accountHeader.empty()) options.accountHeader = services.accountHeader;
  options.dispatcher = services.dispatcher;
  return BackendRecordStore::open(std::move(options), services.http, std::move(logger), error);
}

}  // namespace omra
