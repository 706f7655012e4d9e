#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"

namespace omra {

// The kit's one save path for records: writes through the configured store and prints a failed
// save as "Amazon DynamoDB Save Error: " + the error, whichever store it is. Gives every record
// its "RecordId", counting from 1; copies of a writer share the count, so one writer (and its
// copies) serves one session's records. Shares the store and the logger; thread-safe (save may be
// called from any thread; completions only print).
class RecordWriter {
 public:
  // Called once per save with whether it succeeded, after any print (tests, benchmarks).
  using Done = std::function<void(bool ok)>;

  RecordWriter(std::shared_ptr<RecordStore> store, std::shared_ptr<Logger> logger);

  // Any record model (toItem() and dynamoDBTableName()). Thread-safe.
  template <class Model>
  void save(const Model& model, Done done = {}) const {
    saveItem(Model::dynamoDBTableName(), model.toItem(), std::move(done));
  }
  // Sets the item's "RecordId" to the next number, then saves it. Thread-safe.
  void saveItem(const std::string& table, Item item, Done done = {}) const;

  static constexpr const char* kSaveErrorPrefix = "Amazon DynamoDB Save Error: ";

 private:
  std::shared_ptr<RecordStore> store_;
  std::shared_ptr<Logger> logger_;
  std::shared_ptr<std::atomic<int64_t>> lastRecordId_ = std::make_shared<std::atomic<int64_t>>(0);
};

}  // namespace omra
