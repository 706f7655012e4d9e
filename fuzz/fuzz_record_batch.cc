// The ingest route's body reader against nlohmann's parser: a body is "not JSON" to one exactly
// when it is to the other (a NUL byte aside), and a batch it accepts, written out again, reads back
// the same.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "server/record_batch.h"
#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"

namespace {

// The batch as the kit writes it, tables in the order they first appear.
std::string bodyOf(const omra::server::RecordBatch& batch) {
  std::string out = "{\"RequestItems\":{";
  for (size_t i = 0; i < batch.items.size(); ++i) {
    const bool opens = i == 0 || batch.items[i].table != batch.items[i - 1].table;
    if (opens) {
      if (i > 0) out += "],";
      out += omra::Json(batch.items[i].table).dump() + ":[";
    } else {
      out += ',';
    }
    out += "{\"PutRequest\":{\"Item\":" + *omra::itemToJsonText(batch.items[i].item) + "}}";
  }
  return out + "]}}";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace omra::server;
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  std::optional<BatchProblem> problem;
  const RecordBatch batch = parseRecordBatch(body, &problem);
  if (size > kMaxBatchBodyBytes) return 0;
  // nlohmann takes a NUL byte outside strings for the end of the text; the reader does not.
  if (body.find('\0') == std::string_view::npos) {
    const bool notJson = omra::Json::parse(body, nullptr, false).is_discarded();
    if (notJson != (problem && problem->message == "Request body is not JSON")) __builtin_trap();
  }
  if (problem) {
    if (!batch.items.empty() || problem->message.empty()) __builtin_trap();
    if (!omra::isValidUtf8(problem->message)) __builtin_trap();
    return 0;
  }
  if (batch.items.empty() || batch.items.size() != batch.indexes.size()) __builtin_trap();
  std::optional<BatchProblem> again;
  const RecordBatch reread = parseRecordBatch(bodyOf(batch), &again);
  if (again || reread.items != batch.items || reread.indexes != batch.indexes) __builtin_trap();
  return 0;
}
