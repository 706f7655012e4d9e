// One row of the SQLite record store as read back from the file: the compact form through
// decodeItem, and the JSON text of older files through itemFromJson. A row either read accepts
// must be an item every other part can use: text UTF-8 (it is sent and served as JSON), numbers
// DynamoDB takes, and, in the compact form, stored again unchanged.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/item_checks.h"
#include "src/platform/store/item_codec.h"

namespace {

void checkUsable(const omra::Item& item) {
  if (!omra::itemToJsonText(item)) __builtin_trap();
  for (const auto& [name, value] : item) {
    if (value.type == omra::AttributeValue::Type::kNumber && !omra::isValidNumberText(value.text)) {
      __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view row(reinterpret_cast<const char*>(data), size);
  std::string why;
  if (const auto item = omra::decodeItem(row, &why)) {
    checkUsable(*item);
    if (omra::decodeItem(omra::encodeItem(*item)) != item) __builtin_trap();
  } else if (why.empty()) {
    __builtin_trap();
  }
  if (const auto json = omra::readJson(row)) {
    if (const auto item = omra::itemFromJson(*json)) {
      // JSON text may carry number texts DynamoDB refuses; the store checks those on writing.
      if (!omra::itemToJsonText(*item)) __builtin_trap();
    }
  }
  return 0;
}
