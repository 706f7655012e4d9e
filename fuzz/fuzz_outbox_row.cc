// One outbox row as read back from the device's file: "account\ntable\nitem" through
// readOutboxRow. A row it accepts must be one the ingest route can be sent: a digest, a printable
// table name and an item that reads back as attributes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/record_outbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const size_t a = text.find('\n');
  if (a == std::string_view::npos) return 0;
  const size_t b = text.find('\n', a + 1);
  if (b == std::string_view::npos) return 0;
  std::string why;
  const auto row = omra::readOutboxRow(7, text.substr(0, a), text.substr(a + 1, b - a - 1),
                                       text.substr(b + 1), &why);
  if (!row) {
    if (why.empty()) __builtin_trap();
    return 0;
  }
  if (row->account.size() != 32 || row->table.empty() || row->id != 7) __builtin_trap();
  for (char c : row->account) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) __builtin_trap();
  }
  const auto json = omra::readJson(row->itemJson);
  if (!json || !omra::itemFromJson(*json)) __builtin_trap();
  return 0;
}
