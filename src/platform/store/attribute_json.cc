#include "src/platform/store/attribute_json.h"

#include "src/foundation/json_reader.h"
#include "src/platform/store/base64.h"

namespace omra {
namespace {

void setError(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
}

}  // namespace

Json attributeToJson(const AttributeValue& value) {
  Json out = Json::object();
  switch (value.type) {
    case AttributeValue::Type::kString:
      out["S"] = value.text;
      break;
    case AttributeValue::Type::kNumber:
      out["N"] = value.text;
      break;
    case AttributeValue::Type::kBytes:
      out["B"] = base64Encode(value.text);
      break;
    case AttributeValue::Type::kStringMap: {
      Json m = Json::object();
      for (const auto& [k, v] : value.map) m[k] = Json{{"S", v}};
      out["M"] = std::move(m);
      break;
    }
  }
  return out;
}

Json itemToJson(const Item& item) {
  Json out = Json::object();
  for (const auto& [name, value] : item) out[name] = attributeToJson(value);
  return out;
}

std::optional<std::string> itemToJsonText(const Item& item) {
  std::string out;
  out.reserve(64 * item.size());
  out += '{';
  for (const auto& [name, value] : item) {
    if (out.size() > 1) out += ',';
    if (!appendJsonText(out, name)) return std::nullopt;
    bool ok = true;
    switch (value.type) {
      case AttributeValue::Type::kString:
        out += ":{\"S\":";
        ok = appendJsonText(out, value.text);
        break;
      case AttributeValue::Type::kNumber:
        out += ":{\"N\":";
        ok = appendJsonText(out, value.text);
        break;
      case AttributeValue::Type::kBytes:
        out += ":{\"B\":";
        ok = appendJsonText(out, base64Encode(value.text));
        break;
      case AttributeValue::Type::kStringMap: {
        out += ":{\"M\":{";
        bool first = true;
        for (const auto& [k, v] : value.map) {
          if (!first) out += ',';
          first = false;
          ok = ok && appendJsonText(out, k);
          out += ":{\"S\":";
          ok = ok && appendJsonText(out, v);
          out += '}';
        }
        out += '}';
        break;
      }
    }
    if (!ok) return std::nullopt;
    out += '}';
  }
  out += '}';
  return out;
}

std::optional<AttributeValue> attributeFromJson(const Json& json, std::string* error) {
  if (!json.is_object() || json.size() != 1) {
    setError(error, "an attribute value must be an object with one type key");
    return std::nullopt;
  }
  const auto it = json.begin();
  const std::string& type = it.key();
  const Json& v = it.value();
  if (type == "S" || type == "N" || type == "B") {
    if (!v.is_string()) {
      setError(error, "the value of a " + type + " attribute must be a string");
      return std::nullopt;
    }
    const std::string& text = v.get_ref<const std::string&>();
    if (type == "S") return AttributeValue::string(text);
    if (type == "N") return AttributeValue::numberText(text);
    auto bytes = base64Decode(text);
    if (!bytes) {
      setError(error, "a B attribute is not valid base64");
      return std::nullopt;
    }
    return AttributeValue::bytes(std::move(*bytes));
  }
  if (type == "M") {
    if (!v.is_object()) {
      setError(error, "the value of an M attribute must be an object");
      return std::nullopt;
    }
    std::map<std::string, std::string> m;
    for (auto e = v.begin(); e != v.end(); ++e) {
      const Json& inner = e.value();
      const auto s = inner.is_object() && inner.size() == 1 ? inner.find("S") : inner.end();
      if (s == inner.end() || !s->is_string()) {
        setError(error, "map entry " + e.key() + " is not a string value");
        return std::nullopt;
      }
      m.emplace(e.key(), s->get<std::string>());
    }
    return AttributeValue::stringMap(std::move(m));
  }
  setError(error, "unsupported attribute type " + type);
  return std::nullopt;
}

std::optional<Item> itemFromJson(const Json& json, std::string* error) {
  if (!json.is_object()) {
    setError(error, "an item must be an object");
    return std::nullopt;
  }
  Item item;
  for (auto it = json.begin(); it != json.end(); ++it) {
    std::string why;
    auto value = attributeFromJson(it.value(), &why);
    if (!value) {
      setError(error, "attribute " + it.key() + ": " + why);
      return std::nullopt;
    }
    item.emplace(it.key(), std::move(*value));
  }
  return item;
}

}  // namespace omra
