// Building and reading the typed attributes of record items: numbers as DynamoDB number texts
// (integers, floats, doubles, flags as 1 and 0), and the wall clock for "Timestamp".
// Plain functions; thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "omrakit/platform/record_store.h"

namespace omra {

// The range key of the five tables the kit writes: a per-session sequence number that the kit's
// writer gives each record, so that two records of one frame (two objects, two plane events) keep
// distinct keys, and a record sent twice replaces itself. "FrameId" stays an ordinary attribute.
inline constexpr const char* kRecordIdAttribute = "RecordId";
// The item with its "RecordId" set.
Item withRecordId(Item item, int64_t recordId);

AttributeValue integerNumber(int64_t value);
// The shortest text that reads back to the same float (or double). Non-finite values give texts
// that no store accepts as numbers, as DynamoDB refuses them.
AttributeValue floatNumber(float value);
AttributeValue doubleNumber(double value);
AttributeValue flagNumber(bool value);

// Seconds since 1970-01-01, with the fraction.
double wallClockSeconds();

// Readers: absent when the attribute is missing; false when it is present but not of the type.
bool readString(const Item& item, const std::string& name, std::optional<std::string>& out);
bool readBytes(const Item& item, const std::string& name, std::optional<std::string>& out);
bool readInteger(const Item& item, const std::string& name, std::optional<int64_t>& out);
bool readFloat(const Item& item, const std::string& name, std::optional<float>& out);
bool readDouble(const Item& item, const std::string& name, std::optional<double>& out);
// Any number; zero is false.
bool readFlag(const Item& item, const std::string& name, std::optional<bool>& out);
bool readStringMap(const Item& item, const std::string& name,
                   std::optional<std::map<std::string, std::string>>& out);

// Sets name in item when value is present.
template <class T, class Make>
void putIf(Item& item, const std::string& name, const std::optional<T>& value, Make make) {
  if (value) item.insert_or_assign(name, make(*value));
}

}  // namespace omra
