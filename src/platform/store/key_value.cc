#include "src/platform/store/key_value.h"

#include <cstdlib>

namespace omra {

KeyValue KeyValue::of(const AttributeValue& value) {
  KeyValue k;
  k.text = value.text;
  if (value.type == AttributeValue::Type::kNumber) {
    k.numeric = true;
    k.number = std::strtold(value.text.c_str(), nullptr);
  }
  return k;
}

}  // namespace omra
