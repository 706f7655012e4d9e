// One request of the back end's ingest route (POST {base}/records/batch_write), in the
// BatchWriteItem shape {"RequestItems": {TABLE: [{"PutRequest": {"Item": ITEM}}, ...], ...}},
// and what the route's answer means for the records sent. Value types and plain functions;
// not thread-safe to mutate concurrently.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/http_client.h"

namespace omra {

// The route's limit on a request body.
inline constexpr size_t kMaxIngestBodyBytes = size_t{1} << 20;

class IngestBatch {
 public:
  IngestBatch(size_t maxBodyBytes, size_t maxItems);

  // The body a batch holding only this item would have.
  static size_t singleItemBodyBytes(const std::string& table, const std::string& itemJson);

  // Adds one outbox row (the item in DynamoDB JSON text) when the body stays within both limits;
  // false when it would not (the batch is full).
  bool add(int64_t rowId, const std::string& table, const std::string& itemJson);

  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  // The exact size of body().
  size_t bodyBytes() const { return bytes_; }
  std::string body() const;
  // The row of the index-th item of table's list in the body; none when there is no such item.
  std::optional<int64_t> rowAt(const std::string& table, int64_t index) const;
  std::vector<int64_t> rowIds() const;

 private:
  struct TableItems {
    std::vector<int64_t> rows;
    std::vector<std::string> items;
  };
  size_t maxBodyBytes_;
  size_t maxItems_;
  size_t count_ = 0;
  size_t bytes_;
  std::map<std::string, TableItems> tables_;  // the body lists tables in this order
};

// What an answer to one batch means for its rows.
struct IngestOutcome {
  enum class Kind {
    kDelivered,  // 2xx: every row of the batch is stored
    kRetry,      // no answer, 408, 429, 5xx (and anything unexpected): send again later
    kDropItem,   // 400 or 404 naming one item by "table" and "index": that one can never succeed
    kDropBatch,  // any other 4xx: none of the batch can succeed
  };
  Kind kind = Kind::kRetry;
  std::string table;  // kDropItem
  int64_t index = -1;
  std::optional<std::chrono::seconds> retryAfter;  // from a Retry-After of whole seconds
  std::string message;  // why, for the log: the back end's errorMessage or the transport error
};

IngestOutcome classifyIngestAnswer(const HttpResponse& response);

}  // namespace omra
