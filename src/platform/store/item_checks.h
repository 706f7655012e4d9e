// Checks every store applies before it writes, so that the three stores refuse the same items with
// the same words (DynamoDB's own, where it has them). Plain functions; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "omrakit/platform/record_store.h"

namespace omra {

// DynamoDB's number syntax: optional sign, digits with an optional fraction, optional exponent,
// at most 38 significant digits. "NaN" and "Infinity" are not numbers there.
bool isValidNumberText(std::string_view text);

// Key attributes present, of the schema's types and non-empty; numbers valid; size within
// kMaxItemBytes.
std::optional<StoreError> checkItem(const TableSchema& schema, const Item& item);
// The checks that need no schema: numbers valid, size within kMaxItemBytes.
std::optional<StoreError> checkItemContents(const Item& item);
// A key for get(): exactly the key attributes of the schema, valid.
std::optional<StoreError> checkKey(const TableSchema& schema, const Item& key);
// The key attributes of item.
Item keyOf(const TableSchema& schema, const Item& item);

StoreError missingTableError(const std::string& table);

}  // namespace omra
