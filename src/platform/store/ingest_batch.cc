#include "src/platform/store/ingest_batch.h"

#include <algorithm>
#include <charconv>

namespace omra {
namespace {

constexpr std::string_view kOpen = "{\"RequestItems\":{";
constexpr std::string_view kClose = "}}";
constexpr std::string_view kPutOpen = "{\"PutRequest\":{\"Item\":";
constexpr std::string_view kPutClose = "}}";

std::string quoted(const std::string& text) { return Json(text).dump(); }

// A table's list without its items: "NAME":[ and ].
size_t tableOverhead(const std::string& table) { return quoted(table).size() + 3; }
size_t itemOverhead(const std::string& itemJson) {
  return kPutOpen.size() + itemJson.size() + kPutClose.size();
}

std::optional<std::chrono::seconds> retryAfterOf(const HttpResponse& r) {
  const auto it = r.headers.find("retry-after");
  if (it == r.headers.end()) return std::nullopt;
  const std::string& v = it->second;
  constexpr const char* kBlank = " \t\r\n";
  const size_t b = v.find_first_not_of(kBlank);
  if (b == std::string::npos) return std::nullopt;  // then the last non-blank exists too
  const size_t e = v.find_last_not_of(kBlank);
  int64_t seconds = 0;
  const char* first = v.data() + b;
  const char* last = v.data() + e + 1;
  const auto res = std::from_chars(first, last, seconds);
  // An HTTP date (the other form) is not used by the back end; the backoff alone then decides.
  if (res.ec != std::errc() || res.ptr != last || seconds < 0) return std::nullopt;
  // The sender adds the wait to clock readings in nanoseconds: a wait of centuries would wrap.
  // No back end asks for more than a day; the sender caps it lower still.
  constexpr int64_t kMaxSeconds = 24 * 60 * 60;
  return std::chrono::seconds(std::min(seconds, kMaxSeconds));
}

std::string errorMessageOf(const HttpResponse& r) {
  if (r.json && r.json->is_object()) {
    const auto it = r.json->find("errorMessage");
    if (it != r.json->end() && it->is_string()) return it->get<std::string>();
  }
  std::string body = r.body.substr(0, 200);
  return body.empty() ? "no message" : body;
}

}  // namespace

IngestBatch::IngestBatch(size_t maxBodyBytes, size_t maxItems)
    : maxBodyBytes_(maxBodyBytes), maxItems_(maxItems), bytes_(kOpen.size() + kClose.size()) {}

size_t IngestBatch::singleItemBodyBytes(const std::string& table, const std::string& itemJson) {
  return kOpen.size() + kClose.size() + tableOverhead(table) + itemOverhead(itemJson);
}

bool IngestBatch::add(int64_t rowId, const std::string& table, const std::string& itemJson) {
  if (count_ >= maxItems_) return false;
  const auto it = tables_.find(table);
  size_t extra = itemOverhead(itemJson);
  if (it == tables_.end()) {
    extra += tableOverhead(table) + (tables_.empty() ? 0 : 1);  // and the comma between lists
  } else {
    extra += 1;  // the comma between items
  }
  if (bytes_ + extra > maxBodyBytes_) return false;
  TableItems& t = tables_[table];
  t.rows.push_back(rowId);
  t.items.push_back(itemJson);
  bytes_ += extra;
  ++count_;
  return true;
}

std::string IngestBatch::body() const {
  std::string out;
  out.reserve(bytes_);
  out += kOpen;
  bool firstTable = true;
  for (const auto& [table, t] : tables_) {
    if (!firstTable) out += ',';
    firstTable = false;
    out += quoted(table);
    out += ":[";
    for (size_t i = 0; i < t.items.size(); ++i) {
      if (i > 0) out += ',';
      out += kPutOpen;
      out += t.items[i];
      out += kPutClose;
    }
    out += ']';
  }
  out += kClose;
  return out;
}

std::optional<int64_t> IngestBatch::rowAt(const std::string& table, int64_t index) const {
  const auto it = tables_.find(table);
  if (it == tables_.end() || index < 0 || static_cast<size_t>(index) >= it->second.rows.size()) {
    return std::nullopt;
  }
  return it->second.rows[static_cast<size_t>(index)];
}

std::vector<int64_t> IngestBatch::rowIds() const {
  std::vector<int64_t> out;
  out.reserve(count_);
  for (const auto& [table, t] : tables_) out.insert(out.end(), t.rows.begin(), t.rows.end());
  return out;
}

IngestOutcome classifyIngestAnswer(const HttpResponse& r) {
  IngestOutcome out;
  const long s = r.status;
  if (s == 0) {
    out.kind = IngestOutcome::Kind::kRetry;
    out.message = r.transportError.empty() ? "no answer" : r.transportError;
    return out;
  }
  out.message = "HTTP " + std::to_string(s) + ": " + errorMessageOf(r);
  if (s >= 200 && s < 300) {
    out.kind = IngestOutcome::Kind::kDelivered;
  } else if (s == 408 || s == 429 || s >= 500) {
    out.kind = IngestOutcome::Kind::kRetry;
    out.retryAfter = retryAfterOf(r);
  } else if (s >= 400) {
    out.kind = IngestOutcome::Kind::kDropBatch;
    if ((s == 400 || s == 404) && r.json && r.json->is_object()) {
      const auto table = r.json->find("table");
      const auto index = r.json->find("index");
      if (table != r.json->end() && table->is_string() && index != r.json->end() &&
          index->is_number_integer()) {
        out.kind = IngestOutcome::Kind::kDropItem;
        out.table = table->get<std::string>();
        out.index = index->get<int64_t>();
      }
    }
  } else {
    // 1xx and 3xx are not answers the route gives; most likely a proxy in the way. Keep the rows.
    out.kind = IngestOutcome::Kind::kRetry;
  }
  return out;
}

}  // namespace omra
