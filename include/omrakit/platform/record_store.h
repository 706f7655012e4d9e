// The key-value record store: DynamoDB's data model (items of typed attributes in tables keyed by a
// hash key and an optional range key), behind one interface with SQLite, DynamoDB and in-memory
// implementations.
//
// Thread-safe: every method may be called from any thread. save() completes on an unspecified
// thread: the store's own worker for SQLite and DynamoDB (never the caller's stack), the caller's
// stack for the in-memory store; get/put/query/createTable block. A store that is destroyed with
// saves pending still completes each of them first.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
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
  // Small items read mostly in key ranges (index tables): a store that can keep them in key order
  // does, so that a range reads a few pages rather than one per item.
  bool clustered = false;
};

// DynamoDB's limit on one item, enforced by every store so that a too-large item is seen locally.
inline constexpr size_t kMaxItemBytes = 400 * 1024;
// The error every store gives for an item over kMaxItemBytes (DynamoDB's own wording).
inline constexpr const char* kItemTooLargeMessage =
    "Item size has exceeded the maximum allowed size";

// The item's size as DynamoDB counts it: attribute names plus values (numbers by their digits,
// maps with their per-entry overhead). Thread-safe.
size_t itemSizeBytes(const Item& item);

struct StoreError {
  std::string message;
};

// One item of a batch write.
struct TableItem {
  std::string table;
  Item item;
  bool operator==(const TableItem&) const = default;
};

struct QueryPage {
  std::vector<Item> items;  // in range-key order
  // Present when more items may follow: query again from it. (A remote store may hand out a key
  // whose next page is empty.)
  std::optional<Item> lastEvaluatedKey;
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
  // startKey (a page's lastEvaluatedKey). limit <= 0: as many as one page holds.
  virtual QueryPage query(const std::string& table, const AttributeValue& hashValue,
                          const std::optional<Item>& startKey, int limit,
                          std::optional<StoreError>* error = nullptr) = 0;

  // Blocking write of every item, replacing items with the same keys. Each item is checked before
  // anything is written; a store that can (SQLite, memory, DynamoDB transactions) writes all or
  // none. The default puts the items one by one and may stop part-way.
  virtual std::optional<StoreError> writeBatch(const std::vector<TableItem>& items);

  // Waits at most timeout until every save accepted so far has left the process's memory for
  // where the store keeps it. True when nothing is left pending. The default has nothing to wait
  // for.
  virtual bool flush(std::chrono::milliseconds timeout);

 protected:
  friend std::shared_ptr<RecordStore> storeForAccount(const std::shared_ptr<RecordStore>& store,
                                                      const std::string& accountDigest);
  // A store that writes on an account's behalf (the back end's ingest route) returns a view of
  // itself bound to the account; the others return null, meaning themselves.
  virtual std::shared_ptr<RecordStore> viewForAccount(const std::string& accountDigest);
};

// The store a session of that account writes through: the store itself, or its view bound to the
// account (see viewForAccount). Thread-safe.
std::shared_ptr<RecordStore> storeForAccount(const std::shared_ptr<RecordStore>& store,
                                             const std::string& accountDigest);

// Every item with this hash key value, in range-key order, following the pages. On an error the
// items read so far are returned and *error is set.
std::vector<Item> queryAll(RecordStore& store, const std::string& table,
                           const AttributeValue& hashValue,
                           std::optional<StoreError>* error = nullptr);

}  // namespace omra
