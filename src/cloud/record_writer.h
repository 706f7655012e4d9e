#pragma once

#include <functional>
#include <memory>
#include <string>

#include "omrakit/platform/logger.h"
#include "omrakit/platform/record_store.h"

namespace omra {

// The kit's one save path for records: writes through the configured store and prints a failed
// save as "Amazon DynamoDB Save Error: " + the error, whichever store it is. Shares the store and
// the logger; thread-safe (save may be called from any thread; completions only print).
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
  // Thread-safe.
  void saveItem(const std::string& table, Item item, Done done = {}) const;

  static constexpr const char* kSaveErrorPrefix = "Amazon DynamoDB Save Error: ";

 private:
  std::shared_ptr<RecordStore> store_;
  std::shared_ptr<Logger> logger_;
};

}  // namespace omra
