// A hash or range key value ordered as DynamoDB orders keys: numbers by value, strings by bytes.
// Value type; not thread-safe to mutate concurrently.
#pragma once

#include <string>

#include "omrakit/platform/record_store.h"

namespace omra {

struct KeyValue {
  bool numeric = false;
  long double number = 0;
  std::string text;  // the string, or the number's text as given

  static KeyValue of(const AttributeValue& value);
  bool operator<(const KeyValue& other) const {
    return numeric ? number < other.number : text < other.text;
  }
};

}  // namespace omra
