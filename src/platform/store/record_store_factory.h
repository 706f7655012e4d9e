// Builds the configured record store from its configuration text. Plain functions; thread-safe.
#pragma once

#include <memory>
#include <string>

#include "omrakit/config.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"

namespace omra {

// "sqlite:PATH" (SqliteRecordStore), "dynamodb:URL" or "dynamodb" (DynamoDbRecordStore; URL empty:
// the region's public endpoint; region and credentials from aws), "memory" (MemoryRecordStore).
// Null with *error set for an unknown text or a store that cannot be opened. The logger (may be
// null) gets the remote store's retry notes.
std::shared_ptr<RecordStore> makeRecordStore(const std::string& target, const AwsSettings& aws,
                                             std::shared_ptr<Logger> logger,
                                             std::string* error = nullptr);
inline std::shared_ptr<RecordStore> makeRecordStore(const Config& config,
                                                    std::shared_ptr<Logger> logger,
                                                    std::string* error = nullptr) {
  return makeRecordStore(config.recordStore, config.aws, std::move(logger), error);
}

}  // namespace omra
