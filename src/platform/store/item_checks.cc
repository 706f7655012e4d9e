#include "src/platform/store/item_checks.h"

#include <cctype>

#include "src/foundation/json_reader.h"

namespace omra {
namespace {

size_t numberSize(std::string_view text) {
  // Significant digits, as DynamoDB stores them: two digits a byte plus one byte.
  size_t digits = 0;
  bool leading = true;
  for (char c : text) {
    if (c == 'e' || c == 'E') break;
    if (!std::isdigit(static_cast<unsigned char>(c))) continue;
    if (leading && c == '0') continue;
    leading = false;
    ++digits;
  }
  if (digits == 0) return 1;
  return 1 + (digits + 1) / 2 + (!text.empty() && text[0] == '-' ? 1 : 0);
}

size_t valueSize(const AttributeValue& v) {
  switch (v.type) {
    case AttributeValue::Type::kString:
    case AttributeValue::Type::kBytes:
      return v.text.size();
    case AttributeValue::Type::kNumber:
      return numberSize(v.text);
    case AttributeValue::Type::kStringMap: {
      size_t n = 3;
      for (const auto& [k, s] : v.map) n += 1 + k.size() + s.size();
      return n;
    }
  }
  return 0;
}

std::optional<StoreError> checkKeyAttribute(const Item& item, const std::string& name,
                                            KeyType type) {
  const auto it = item.find(name);
  if (it == item.end()) {
    return StoreError{"One of the required keys was not given a value: " + name};
  }
  const auto want =
      type == KeyType::kString ? AttributeValue::Type::kString : AttributeValue::Type::kNumber;
  if (it->second.type != want) {
    return StoreError{"Type mismatch for key " + name +
                      " expected: " + (type == KeyType::kString ? "S" : "N")};
  }
  if (it->second.text.empty()) {
    return StoreError{"One or more parameter values are not valid: the key " + name +
                      " is an empty string"};
  }
  return std::nullopt;
}

std::optional<StoreError> checkNumbers(const Item& item) {
  for (const auto& [name, v] : item) {
    if (v.type == AttributeValue::Type::kNumber && !isValidNumberText(v.text)) {
      return StoreError{"The parameter cannot be converted to a numeric value: " + name + "=" +
                        v.text};
    }
  }
  return std::nullopt;
}

// Stored and sent as JSON text: bytes that are not UTF-8 would be refused there (or thrown on).
std::optional<StoreError> checkText(const Item& item) {
  for (const auto& [name, v] : item) {
    if (!isValidUtf8(name)) return StoreError{"An attribute name is not valid UTF-8"};
    bool ok = v.type != AttributeValue::Type::kString || isValidUtf8(v.text);
    for (const auto& [k, s] : v.map) ok = ok && isValidUtf8(k) && isValidUtf8(s);
    if (!ok)
      return StoreError{"One or more parameter values were invalid: " + name +
                        " is not valid UTF-8"};
  }
  return std::nullopt;
}

}  // namespace

size_t itemSizeBytes(const Item& item) {
  size_t n = 0;
  for (const auto& [name, v] : item) n += name.size() + valueSize(v);
  return n;
}

bool isValidNumberText(std::string_view t) {
  size_t i = 0;
  if (i < t.size() && (t[i] == '-' || t[i] == '+')) ++i;
  size_t mantissaDigits = 0, significant = 0;
  bool leading = true;
  const auto digit = [&](size_t k) { return std::isdigit(static_cast<unsigned char>(t[k])) != 0; };
  for (; i < t.size() && digit(i); ++i, ++mantissaDigits) {
    if (t[i] != '0') leading = false;
    if (!leading) ++significant;
  }
  if (i < t.size() && t[i] == '.') {
    for (++i; i < t.size() && digit(i); ++i, ++mantissaDigits) {
      if (t[i] != '0') leading = false;
      if (!leading) ++significant;
    }
  }
  if (mantissaDigits == 0) return false;
  if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    ++i;
    if (i < t.size() && (t[i] == '-' || t[i] == '+')) ++i;
    size_t expDigits = 0;
    for (; i < t.size() && digit(i); ++i) ++expDigits;
    if (expDigits == 0 || expDigits > 3) return false;
  }
  return i == t.size() && significant <= 38;
}

std::optional<StoreError> checkItem(const TableSchema& schema, const Item& item) {
  if (auto e = checkKeyAttribute(item, schema.hashKey, schema.hashType)) return e;
  if (schema.rangeKey) {
    if (auto e = checkKeyAttribute(item, *schema.rangeKey, schema.rangeType)) return e;
  }
  return checkItemContents(item);
}

std::optional<StoreError> checkItemContents(const Item& item) {
  if (auto e = checkNumbers(item)) return e;
  if (auto e = checkText(item)) return e;
  const size_t size = itemSizeBytes(item);
  if (size > kMaxItemBytes) {
    return StoreError{std::string(kItemTooLargeMessage) + " (" + std::to_string(size) +
                      " bytes, limit " + std::to_string(kMaxItemBytes) + ")"};
  }
  return std::nullopt;
}

std::optional<StoreError> checkKey(const TableSchema& schema, const Item& key) {
  if (auto e = checkKeyAttribute(key, schema.hashKey, schema.hashType)) return e;
  if (schema.rangeKey) {
    if (auto e = checkKeyAttribute(key, *schema.rangeKey, schema.rangeType)) return e;
  }
  if (key.size() != (schema.rangeKey ? 2u : 1u)) {
    return StoreError{"The provided key element does not match the schema"};
  }
  if (auto e = checkText(key)) return e;
  return checkNumbers(key);
}

Item keyOf(const TableSchema& schema, const Item& item) {
  Item key;
  if (auto it = item.find(schema.hashKey); it != item.end()) key.insert(*it);
  if (schema.rangeKey) {
    if (auto it = item.find(*schema.rangeKey); it != item.end()) key.insert(*it);
  }
  return key;
}

StoreError missingTableError(const std::string& table) {
  return StoreError{"Cannot do operations on a non-existent table: " + table};
}

std::vector<Item> queryAll(RecordStore& store, const std::string& table,
                           const AttributeValue& hashValue, std::optional<StoreError>* error) {
  std::vector<Item> all;
  std::optional<Item> start;
  if (error != nullptr) error->reset();
  while (true) {
    std::optional<StoreError> pageError;
    QueryPage page = store.query(table, hashValue, start, 0, &pageError);
    if (pageError) {
      if (error != nullptr) *error = std::move(pageError);
      return all;
    }
    for (auto& item : page.items) all.push_back(std::move(item));
    if (!page.lastEvaluatedKey) return all;
    start = std::move(page.lastEvaluatedKey);
  }
}

}  // namespace omra

namespace omra {

std::optional<StoreError> RecordStore::writeBatch(const std::vector<TableItem>& items) {
  for (const TableItem& t : items) {
    if (auto e = put(t.table, t.item)) return e;
  }
  return std::nullopt;
}

bool RecordStore::flush(std::chrono::milliseconds) { return true; }

std::shared_ptr<RecordStore> RecordStore::viewForAccount(const std::string&) { return nullptr; }

std::shared_ptr<RecordStore> storeForAccount(const std::shared_ptr<RecordStore>& store,
                                             const std::string& accountDigest) {
  if (!store) return store;
  std::shared_ptr<RecordStore> view = store->viewForAccount(accountDigest);
  return view ? view : store;
}

}  // namespace omra
