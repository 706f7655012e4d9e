#include "src/cloud/record_item.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdlib>

namespace omra {
namespace {

template <class T>
AttributeValue realNumber(T value) {
  if (std::isnan(value)) return AttributeValue::numberText("NaN");
  if (std::isinf(value)) return AttributeValue::numberText(value < 0 ? "-Infinity" : "Infinity");
  char buf[64];
  const auto res = std::to_chars(buf, buf + sizeof buf, value);
  return AttributeValue::numberText(std::string(buf, res.ptr));
}

const AttributeValue* find(const Item& item, const std::string& name, AttributeValue::Type type,
                           bool& ok) {
  ok = true;
  const auto it = item.find(name);
  if (it == item.end()) return nullptr;
  if (it->second.type != type) {
    ok = false;
    return nullptr;
  }
  return &it->second;
}

template <class T>
bool parseNumber(const std::string& text, T& out) {
  const char* begin = text.data();
  const char* end = begin + text.size();
  if (begin != end && *begin == '+') ++begin;
  const auto res = std::from_chars(begin, end, out);
  return res.ec == std::errc() && res.ptr == end;
}

}  // namespace

AttributeValue integerNumber(int64_t value) {
  return AttributeValue::numberText(std::to_string(value));
}
AttributeValue floatNumber(float value) { return realNumber(value); }
AttributeValue doubleNumber(double value) { return realNumber(value); }
AttributeValue flagNumber(bool value) { return AttributeValue::numberText(value ? "1" : "0"); }

double wallClockSeconds() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

bool readString(const Item& item, const std::string& name, std::optional<std::string>& out) {
  bool ok;
  if (const auto* v = find(item, name, AttributeValue::Type::kString, ok)) out = v->text;
  return ok;
}

bool readBytes(const Item& item, const std::string& name, std::optional<std::string>& out) {
  bool ok;
  if (const auto* v = find(item, name, AttributeValue::Type::kBytes, ok)) out = v->text;
  return ok;
}

bool readInteger(const Item& item, const std::string& name, std::optional<int64_t>& out) {
  bool ok;
  const auto* v = find(item, name, AttributeValue::Type::kNumber, ok);
  if (v == nullptr) return ok;
  int64_t n;
  if (parseNumber(v->text, n)) {
    out = n;
    return true;
  }
  // Another writer may have stored an integral value as "12.0" or "1.2e1".
  double d;
  if (!parseNumber(v->text, d) || d != std::trunc(d) || std::fabs(d) > 9.2e18) return false;
  out = static_cast<int64_t>(d);
  return true;
}

bool readFloat(const Item& item, const std::string& name, std::optional<float>& out) {
  bool ok;
  const auto* v = find(item, name, AttributeValue::Type::kNumber, ok);
  if (v == nullptr) return ok;
  float f;
  if (!parseNumber(v->text, f)) return false;
  out = f;
  return true;
}

bool readDouble(const Item& item, const std::string& name, std::optional<double>& out) {
  bool ok;
  const auto* v = find(item, name, AttributeValue::Type::kNumber, ok);
  if (v == nullptr) return ok;
  double d;
  if (!parseNumber(v->text, d)) return false;
  out = d;
  return true;
}

bool readFlag(const Item& item, const std::string& name, std::optional<bool>& out) {
  std::optional<double> d;
  if (!readDouble(item, name, d)) return false;
  if (d) out = *d != 0;
  return true;
}

bool readStringMap(const Item& item, const std::string& name,
                   std::optional<std::map<std::string, std::string>>& out) {
  bool ok;
  if (const auto* v = find(item, name, AttributeValue::Type::kStringMap, ok)) out = v->map;
  return ok;
}

Item withRecordId(Item item, int64_t recordId) {
  item.insert_or_assign(kRecordIdAttribute, integerNumber(recordId));
  return item;
}

}  // namespace omra
