// Builds the configured record store from its configuration text. Plain functions; thread-safe.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "omrakit/config.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"

namespace omra {

// "sqlite:PATH" (SqliteRecordStore), "dynamodb:URL" or "dynamodb" (DynamoDbRecordStore; URL empty:
// the region's public endpoint; region and credentials from aws), "memory" (MemoryRecordStore).
// Null with *error set for an unknown text or a store that cannot be opened. The logger (may be
// null) gets the remote store's retry notes. "backend" needs the kit's services: see below.
std::shared_ptr<RecordStore> makeRecordStore(const std::string& target, const AwsSettings& aws,
                                             std::shared_ptr<Logger> logger,
                                             std::string* error = nullptr);

// What the kit's "backend" store takes from the Env being built.
struct KitStoreServices {
  std::shared_ptr<HttpClient> http;
  std::weak_ptr<Dispatcher> dispatcher;   // its main queue delivers the HTTP completions
  std::vector<TableSchema> recordTables;  // the tables records are sent for
  std::string accountHeader;              // the request header naming the account
};

// The kit's store from its configuration: the texts above, plus "backend" (BackendRecordStore to
// config.endpoints.mapsProd + "/prod") and "backend:URL" (to URL), with the outbox at
// config.recordOutbox (or defaultRecordOutboxPath), its cap and close time from config.
std::shared_ptr<RecordStore> makeRecordStore(const Config& config, const KitStoreServices& services,
                                             std::shared_ptr<Logger> logger,
                                             std::string* error = nullptr);

}  // namespace omra
