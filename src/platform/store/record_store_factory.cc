#include "src/platform/store/record_store_factory.h"

#include "src/platform/store/dynamodb_record_store.h"
#include "src/platform/store/memory_record_store.h"
#include "src/platform/store/sqlite_record_store.h"

namespace omra {

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
    *error =
        "unknown record store \"" + target + "\" (expected sqlite:PATH, dynamodb:URL or memory)";
  }
  return nullptr;
}

}  // namespace omra
