// Reading the body of the record ingest route: a batch of the kit's record items in DynamoDB's
// BatchWriteItem shape, each checked against the record model of its table. Free function;
// thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/platform/record_store.h"

namespace omra::server {

// Where a batch went wrong. table/index name the item at fault (its place in that table's list)
// when one is; otherwise the whole body is.
struct BatchProblem {
  std::string message;
  std::optional<std::string> table;
  size_t index = 0;
};

struct RecordBatch {
  std::vector<TableItem> items;
  // Per item: its place in its table's list, for answers that name one.
  std::vector<size_t> indexes;
};

// The largest body the route takes.
inline constexpr size_t kMaxBatchBodyBytes = size_t{1} << 20;

// The five tables the kit writes its records to.
bool isRecordTable(std::string_view table);

// Parses and checks a whole batch: the five tables only; each item parses, has "SessionId" (a
// UUID), "RecordId" (a positive integer), "FrameId" and what its table's model needs, valid
// numbers, at most kMaxItemBytes; the body at most kMaxBatchBodyBytes and at least one item.
// Either every item, or the first problem.
RecordBatch parseRecordBatch(std::string_view body, std::optional<BatchProblem>* problem);

}  // namespace omra::server
