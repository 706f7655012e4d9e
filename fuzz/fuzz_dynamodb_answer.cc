// DynamoDB answers (GetItem's "Item", Query's "Items" and "LastEvaluatedKey") and the attribute
// JSON inside them, which is also the SQLite store's stored form. Every item read must survive a
// write and a second read unchanged, and must be checkable without an exception.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/item_checks.h"

namespace {

void roundTrip(const omra::Json& json) {
  std::string why;
  const std::optional<omra::Item> item = omra::itemFromJson(json, &why);
  if (!item) return;
  (void)omra::checkItemContents(*item);
  (void)omra::itemSizeBytes(*item);
  // Strings were checked by the reader: the encoder must not need to replace anything.
  const std::string text = omra::itemToJson(*item).dump();
  const std::optional<omra::Json> again = omra::readJson(text);
  if (!again) __builtin_trap();
  const std::optional<omra::Item> back = omra::itemFromJson(*again);
  if (!back || *back != *item) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::optional<omra::Json> answer = omra::readJson(text);
  if (!answer) return 0;
  roundTrip(*answer);
  if (!answer->is_object()) return 0;
  for (const char* key : {"Item", "LastEvaluatedKey"}) {
    if (auto it = answer->find(key); it != answer->end()) roundTrip(*it);
  }
  if (auto items = answer->find("Items"); items != answer->end() && items->is_array()) {
    for (const omra::Json& j : *items) roundTrip(j);
  }
  return 0;
}
