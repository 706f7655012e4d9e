// The back end's answer to a batch of records, as the device's sender reads it: a status (first
// two bytes), a Retry-After value (up to the first newline) and a body. The outcome must be one
// the sender can act on: a wait it can add to the clock, an item named by a table and a
// non-negative position only for 400 and 404.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/foundation/json_reader.h"
#include "src/platform/store/ingest_batch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  omra::HttpResponse r;
  r.status = (data[0] << 8 | data[1]) % 700;
  const std::string rest(reinterpret_cast<const char*>(data) + 2, size - 2);
  const size_t cut = rest.find('\n');
  if (cut != std::string::npos) r.headers["retry-after"] = rest.substr(0, cut);
  r.body = cut == std::string::npos ? rest : rest.substr(cut + 1);
  if (auto json = omra::readJson(r.body)) {
    r.json = std::move(json);
  } else {
    r.json = omra::Json(omra::Json::value_t::discarded);
  }
  if (r.status == 0) r.transportError = r.body;
  const omra::IngestOutcome out = omra::classifyIngestAnswer(r);
  using Kind = omra::IngestOutcome::Kind;
  if (r.status >= 200 && r.status < 300 && out.kind != Kind::kDelivered) __builtin_trap();
  if (out.kind == Kind::kDelivered && !(r.status >= 200 && r.status < 300)) __builtin_trap();
  if (out.kind == Kind::kDropItem && r.status != 400 && r.status != 404) __builtin_trap();
  if (out.retryAfter) {
    if (out.retryAfter->count() < 0) __builtin_trap();
    // What the sender does with it.
    (void)(std::chrono::steady_clock::now() + *out.retryAfter);
  }
  omra::IngestBatch batch(1 << 20, 100);
  (void)batch.rowAt(out.table, out.index);
  return 0;
}
