#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"
#include "src/platform/store/key_value.h"

namespace omra {

// A record store in process memory, for tests and the "memory" configuration. Owns its items;
// thread-safe (one mutex); save() completes on the caller's stack.
class MemoryRecordStore : public RecordStore {
 public:
  MemoryRecordStore() = default;

  std::optional<StoreError> createTable(const TableSchema& schema) override;
  void save(const std::string& table, Item item, SaveCompletion completion) override;
  std::optional<StoreError> put(const std::string& table, Item item) override;
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error = nullptr) override;
  QueryPage query(const std::string& table, const AttributeValue& hashValue,
                  const std::optional<Item>& startKey, int limit,
                  std::optional<StoreError>* error = nullptr) override;
  // Every item checked first, then all applied under the one lock: all or none.
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override;

  // Number of items in table (0 when it does not exist). Thread-safe.
  size_t itemCount(const std::string& table) const;

 private:
  struct Table {
    TableSchema schema;
    std::map<KeyValue, std::map<KeyValue, Item>> items;  // hash -> range -> item
  };
  static KeyValue rangeOf(const TableSchema& schema, const Item& item);

  mutable std::mutex mu_;
  std::map<std::string, Table> tables_;
};

}  // namespace omra
