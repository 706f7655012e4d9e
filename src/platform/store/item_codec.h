// Items in the SQLite store's compact stored form: a version byte, then each attribute as a type
// tag, its name (a one-byte code for the names the kit and back end use, else the bytes) and its
// value (bytes raw, integers and exactly representable reals in binary, other numbers as text).
// For the kit's records no bigger than DynamoDB's count of the item (JSON with base64 takes a
// third more for the bytes alone), and read without a parser. Plain functions; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "omrakit/platform/record_store.h"

namespace omra {

// The first byte of every row in this form; a row that starts otherwise is not one.
inline constexpr unsigned char kItemCodecVersion = 1;

// Appends the item's stored form to out. Every item encodes; the checks a store applies (UTF-8,
// number syntax) come before.
void encodeItem(const Item& item, std::string& out);
std::string encodeItem(const Item& item);

// The item back. A row that is cut short, has trailing bytes, an unknown tag or name code, a name
// twice, text that is not UTF-8 or a number DynamoDB would refuse is none, with *error saying why;
// never aborts.
std::optional<Item> decodeItem(std::string_view bytes, std::string* error = nullptr);

}  // namespace omra
