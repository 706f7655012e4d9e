// The key-value record store: DynamoDB's data model (items of typed attributes in tables keyed by a
// hash key and an optional range key), behind one interface with SQLite, DynamoDB and in-memory
// implementations.
//
// Thread-safe: every method may be called from any thread. save() completes on an unspecified
// thread (never the caller's stack for the remote stores); get/query/createTable block.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace omra {

// One attribute value of the types the kit writes: S, N, B and a string-to-string M.
struct AttributeValue {
  enum class Type { kString, kNumber, kBytes, kStringMap };

  Type type = Type::kString;
  std::string text;  // S: the string; N: the number's decimal text; B: the raw bytes
  std::map<std::string, std::string> map;  // M (each value an S)

  static AttributeValue string(std::string s) { return {Type::kString, std::move(s), {}}; }
  static AttributeValue numberText(std::string n) { return {Type::kNumber, std::move(n), {}}; }
  static AttributeValue bytes(std::string b) { return {Type::kBytes, std::move(b), {}}; }
  static AttributeValue stringMap(std::map<std::string, std::string> m) {
    return {Type::kStringMap, {}, std::move(m)};
  }
  bool operator==(const AttributeValue&) const = default;
};

using Item = std::map<std::string, AttributeValue>;

enum class KeyType { kString, kNumber };

struct TableSchema {
  std::string name;
  std::string hashKey;
  KeyType hashType = KeyType::kString;
  std::optional<std::string> rangeKey;
  KeyType rangeType = KeyType::kNumber;
};

// DynamoDB's limit on one item, enforced by every store so that a too-large item is seen locally.
inline constexpr size_t kMaxItemBytes = 400 * 1024;

struct StoreError {
  std::string message;
};

struct QueryPage {
  std::vector<Item> items;  // in range-key order
  std::optional<Item> lastEvaluatedKey;  // present when more items follow
};

class RecordStore {
 public:
  using SaveCompletion = std::function<void(std::optional<StoreError> error)>;
  virtual ~RecordStore() = default;

  // Creates the table when it does not exist (idempotent).
  virtual std::optional<StoreError> createTable(const TableSchema& schema) = 0;
  // Writes the item (replacing one with the same key); completion runs once.
  virtual void save(const std::string& table, Item item, SaveCompletion completion) = 0;
  // Blocking put, for the back end's own tables.
  virtual std::optional<StoreError> put(const std::string& table, Item item) = 0;
  // The item with that key (hash, and range when the table has one), or none.
  virtual std::optional<Item> get(const std::string& table, const Item& key,
                                  std::optional<StoreError>* error = nullptr) = 0;
  // Items with this hash key value in range-key order, at most limit of them, starting after
  // startKey (a page's lastEvaluatedKey).
  virtual QueryPage query(const std::string& table, const AttributeValue& hashValue,
                          const std::optional<Item>& startKey, int limit,
                          std::optional<StoreError>* error = nullptr) = 0;
};

}  // namespace omra
