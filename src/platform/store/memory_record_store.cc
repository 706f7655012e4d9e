#include "src/platform/store/memory_record_store.h"

#include "src/platform/store/item_checks.h"

namespace omra {

KeyValue MemoryRecordStore::rangeOf(const TableSchema& schema, const Item& item) {
  if (!schema.rangeKey) return {};
  return KeyValue::of(item.at(*schema.rangeKey));
}

std::optional<StoreError> MemoryRecordStore::createTable(const TableSchema& schema) {
  std::lock_guard lock(mu_);
  tables_.try_emplace(schema.name, Table{schema, {}});
  return std::nullopt;
}

void MemoryRecordStore::save(const std::string& table, Item item, SaveCompletion completion) {
  auto error = put(table, std::move(item));
  if (completion) completion(std::move(error));
}

std::optional<StoreError> MemoryRecordStore::put(const std::string& table, Item item) {
  std::lock_guard lock(mu_);
  const auto t = tables_.find(table);
  if (t == tables_.end()) return missingTableError(table);
  if (auto e = checkItem(t->second.schema, item)) return e;
  const KeyValue hash = KeyValue::of(item.at(t->second.schema.hashKey));
  const KeyValue range = rangeOf(t->second.schema, item);
  t->second.items[hash].insert_or_assign(range, std::move(item));
  return std::nullopt;
}

std::optional<StoreError> MemoryRecordStore::writeBatch(const std::vector<TableItem>& items) {
  std::lock_guard lock(mu_);
  for (const TableItem& t : items) {
    const auto table = tables_.find(t.table);
    if (table == tables_.end()) return missingTableError(t.table);
    if (auto e = checkItem(table->second.schema, t.item)) return e;
  }
  for (const TableItem& t : items) {
    Table& table = tables_.at(t.table);
    const KeyValue hash = KeyValue::of(t.item.at(table.schema.hashKey));
    table.items[hash].insert_or_assign(rangeOf(table.schema, t.item), t.item);
  }
  return std::nullopt;
}

std::optional<Item> MemoryRecordStore::get(const std::string& table, const Item& key,
                                           std::optional<StoreError>* error) {
  if (error != nullptr) error->reset();
  std::lock_guard lock(mu_);
  const auto t = tables_.find(table);
  if (t == tables_.end()) {
    if (error != nullptr) *error = missingTableError(table);
    return std::nullopt;
  }
  if (auto e = checkKey(t->second.schema, key)) {
    if (error != nullptr) *error = std::move(e);
    return std::nullopt;
  }
  const auto h = t->second.items.find(KeyValue::of(key.at(t->second.schema.hashKey)));
  if (h == t->second.items.end()) return std::nullopt;
  const auto r = h->second.find(rangeOf(t->second.schema, key));
  if (r == h->second.end()) return std::nullopt;
  return r->second;
}

QueryPage MemoryRecordStore::query(const std::string& table, const AttributeValue& hashValue,
                                   const std::optional<Item>& startKey, int limit,
                                   std::optional<StoreError>* error) {
  if (error != nullptr) error->reset();
  QueryPage page;
  std::lock_guard lock(mu_);
  const auto t = tables_.find(table);
  if (t == tables_.end()) {
    if (error != nullptr) *error = missingTableError(table);
    return page;
  }
  const TableSchema& schema = t->second.schema;
  const auto h = t->second.items.find(KeyValue::of(hashValue));
  if (h == t->second.items.end()) return page;
  auto it = h->second.begin();
  if (startKey && schema.rangeKey) {
    const auto r = startKey->find(*schema.rangeKey);
    if (r == startKey->end()) {
      if (error != nullptr) *error = StoreError{"The provided starting key is invalid"};
      return page;
    }
    it = h->second.upper_bound(KeyValue::of(r->second));
  } else if (startKey) {
    it = h->second.end();
  }
  for (; it != h->second.end(); ++it) {
    if (limit > 0 && page.items.size() == static_cast<size_t>(limit)) {
      page.lastEvaluatedKey = keyOf(schema, page.items.back());
      break;
    }
    page.items.push_back(it->second);
  }
  return page;
}

size_t MemoryRecordStore::itemCount(const std::string& table) const {
  std::lock_guard lock(mu_);
  const auto t = tables_.find(table);
  if (t == tables_.end()) return 0;
  size_t n = 0;
  for (const auto& [hash, items] : t->second.items) n += items.size();
  return n;
}

}  // namespace omra
