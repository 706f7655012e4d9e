// Reads an ingest body in one pass straight into items, without building a JSON document: the
// route takes tens of thousands of records a second, and a document per batch (every attribute a
// node, every base64 text copied twice) was its largest cost. Accepts the texts nlohmann's parser
// accepts (RFC 8259, UTF-8 checked, a leading byte-order mark skipped, numbers that overflow a
// double refused), except that a NUL byte is no end of the text here, and reports the same
// problems, in the same order, as checking that document would. A key written twice inside the
// batch's structure ("RequestItems", a table, a write request, an item, an attribute) is refused,
// where the document kept the last of the two. One object per body; not thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "omrakit/platform/record_store.h"

namespace omra::server {

class RecordBatchReader {
 public:
  // The item at fault, when one is: its table and its place in that table's list.
  struct Fault {
    std::string message;
    std::optional<std::string> table;
    size_t index = 0;
  };
  // Called with each item read whole, in body order; answers why the item cannot be stored, if
  // it cannot.
  using ItemCheck = std::optional<std::string> (*)(const std::string& table, size_t index,
                                                   Item& item);

  RecordBatchReader(std::string_view body, ItemCheck check);

  // Reads the whole body; false with fault() set when it is not a batch.
  bool read();
  const Fault& fault() const { return fault_; }
  std::vector<TableItem>& items() { return items_; }
  const std::vector<size_t>& indexes() const { return indexes_; }

 private:
  // Each returns false when the text is not JSON; semantic problems go to problem() instead, after
  // which values are only skipped.
  bool requestItems();
  bool tableList(const std::string& table);
  bool writeRequest(const std::string& table, size_t index, std::optional<std::string>* why);
  bool putRequest(Item* item, bool* holdsItem, std::optional<std::string>* why);
  bool item(Item* out, std::optional<std::string>* why);
  bool attribute(AttributeValue* out, std::optional<std::string>* why);
  bool stringMap(AttributeValue* out, std::optional<std::string>* why);

  // Lexical parts.
  void skipBlanks();
  bool peek(char c);
  bool take(char c);
  bool string(std::string* out);
  // The string's text without copying when it holds no escapes (*raw points into the body);
  // otherwise decoded into *decoded and *raw points there.
  bool stringView(std::string_view* raw, std::string* decoded);
  bool skipValue();
  bool number();
  bool literal();
  // An object's members one by one: false at its end ('}' taken), true with *key read and the
  // colon taken when a member follows. *ok false when the text is not JSON.
  bool nextMember(bool first, std::string* key, bool* ok);
  bool nextElement(bool first, bool* ok);

  void problem(std::string message, std::optional<std::string> table = std::nullopt,
               size_t index = 0);

  const char* p_;
  const char* const end_;
  const ItemCheck check_;
  bool failed_ = false;  // a problem is recorded; the rest is only checked for syntax
  Fault fault_;
  std::vector<TableItem> items_;
  std::vector<size_t> indexes_;
  std::string scratch_;
};

}  // namespace omra::server
