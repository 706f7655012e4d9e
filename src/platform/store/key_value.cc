#include "src/platform/store/key_value.h"

#include <charconv>

namespace omra {

KeyValue KeyValue::of(const AttributeValue& value) {
  KeyValue k;
  k.text = value.text;
  if (value.type == AttributeValue::Type::kNumber) {
    k.numeric = true;
    // Locale-free: the text is DynamoDB's number form whatever the host's locale says.
    const char* begin = value.text.data();
    const char* end = begin + value.text.size();
    if (begin != end && *begin == '+') ++begin;
    std::from_chars(begin, end, k.number);
  }
  return k;
}

}  // namespace omra
