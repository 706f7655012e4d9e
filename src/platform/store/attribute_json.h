// Items in DynamoDB's JSON form ({"S": ...}, {"N": ...}, {"B": base64}, {"M": {...}}): the wire
// form of the DynamoDB store and the stored form of the SQLite store. Plain functions; thread-safe.
#pragma once

#include <optional>
#include <string>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"

namespace omra {

Json attributeToJson(const AttributeValue& value);
Json itemToJson(const Item& item);
// itemToJson(item).dump(), byte for byte, written straight from the item without building a
// document (records are written and sent at the frame rate); none when a text is not valid UTF-8,
// where dump() would throw.
std::optional<std::string> itemToJsonText(const Item& item);
// Absent when json is not an attribute value of the four kinds the kit uses; *error says why.
std::optional<AttributeValue> attributeFromJson(const Json& json, std::string* error = nullptr);
// Absent when json is not an object of such values.
std::optional<Item> itemFromJson(const Json& json, std::string* error = nullptr);

}  // namespace omra
