#include "src/platform/config_loader.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "omrakit/platform/http_client.h"
#include "src/foundation/json_reader.h"

namespace omra {
namespace {

using Error = std::optional<std::string>;

std::string trim(std::string_view s) {
  const char* ws = " \t\r\n";
  size_t b = s.find_first_not_of(ws);
  if (b == std::string_view::npos) return {};
  size_t e = s.find_last_not_of(ws);
  return std::string(s.substr(b, e - b + 1));
}

std::vector<std::string> splitCommas(std::string_view s) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    size_t comma = s.find(',', start);
    parts.push_back(trim(s.substr(start, comma - start)));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return parts;
}

std::optional<double> parseNumber(std::string_view text) {
  std::string t = trim(text);
  if (t.empty()) return std::nullopt;
  double v = 0;
  auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
  if (ec != std::errc() || end != t.data() + t.size() || !std::isfinite(v)) return std::nullopt;
  return v;
}

bool isHttpUrl(std::string_view url) {
  std::string_view rest;
  if (url.rfind("http://", 0) == 0) {
    rest = url.substr(7);
  } else if (url.rfind("https://", 0) == 0) {
    rest = url.substr(8);
  } else {
    return false;
  }
  if (rest.empty() || rest.front() == '/') return false;
  for (char c : rest) {
    if (c == '?' || c == '#' || std::isspace(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// A gateway host: scheme, host, optional port and path prefix; trailing slashes dropped because
// the kit appends "/beta/..." itself.
Error setHost(const std::string& key, std::string value, std::string& out) {
  value = trim(value);
  while (value.size() > 1 && value.back() == '/') value.pop_back();
  if (!isHttpUrl(value)) {
    return key + ": \"" + value +
           "\" is not an http:// or https:// address (e.g. https://maps.example.com)";
  }
  out = value;
  return std::nullopt;
}

Error setRecordStore(const std::string& key, const std::string& raw, Config& c) {
  std::string value = trim(raw);
  if (value.rfind("backend:", 0) == 0) {
    while (value.size() > 9 && value.back() == '/') value.pop_back();
  }
  bool ok = value == "memory" || value == "backend" ||
            (value.rfind("backend:", 0) == 0 && isHttpUrl(value.substr(8))) ||
            (value.rfind("sqlite:", 0) == 0 && value.size() > 7) ||
            (value.rfind("dynamodb:", 0) == 0 && isHttpUrl(value.substr(9)));
  if (!ok) {
    return key + ": \"" + value +
           "\" is not one of backend, backend:http(s)://HOST/STAGE, memory, sqlite:PATH, "
           "dynamodb:http(s)://HOST";
  }
  c.recordStore = value;
  return std::nullopt;
}

Error setOutboxMegabytes(const std::string& key, std::optional<double> v, Config& c) {
  if (!v || *v < 1 || *v > 1024 * 1024) return key + ": expected a number of MiB in [1, 1048576]";
  c.recordOutboxMaxMegabytes = *v;
  return std::nullopt;
}

Error setFlushTimeout(const std::string& key, std::optional<double> v, Config& c) {
  if (!v || *v < 0 || *v > 3600) return key + ": expected a number of seconds in [0, 3600]";
  c.recordFlushTimeoutSeconds = *v;
  return std::nullopt;
}

Error setMetricsSink(const std::string& key, const std::string& raw, Config& c) {
  const std::string value = trim(raw);
  bool ok = value == "none" || value == "stdout" || value == "cloudwatch" ||
            (value.rfind("file:", 0) == 0 && value.size() > 5) ||
            (value.rfind("cloudwatch:", 0) == 0 && isHttpUrl(value.substr(11)));
  if (!ok) {
    return key + ": \"" + value +
           "\" is not one of none, stdout, file:PATH, cloudwatch, cloudwatch:http(s)://HOST";
  }
  c.metricsSink = value;
  return std::nullopt;
}

Error setRegion(const std::string& key, const std::string& raw, Config& c) {
  const std::string value = trim(raw);
  bool ok = !value.empty();
  for (char ch : value) {
    ok = ok && ((ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') || ch == '-');
  }
  if (!ok) return key + ": \"" + value + "\" is not a region name such as us-east-1";
  c.aws.region = value;
  return std::nullopt;
}

Error setOrientations(const std::string& key, const std::vector<std::string>& items, Config& c) {
  static const char* kPrefix = "UIInterfaceOrientation";
  static const std::vector<std::string> kNames = {"Portrait", "PortraitUpsideDown", "LandscapeLeft",
                                                  "LandscapeRight"};
  std::vector<std::string> out;
  for (const auto& raw : items) {
    std::string item = trim(raw);
    if (item.empty()) continue;
    // Full platform texts, or the short names ("landscapeLeft") in any case.
    std::string bare = item.rfind(kPrefix, 0) == 0 ? item.substr(22) : item;
    std::string found;
    for (const auto& name : kNames) {
      if (bare.size() == name.size() &&
          std::equal(bare.begin(), bare.end(), name.begin(), [](char a, char b) {
            return std::tolower(static_cast<unsigned char>(a)) ==
                   std::tolower(static_cast<unsigned char>(b));
          })) {
        found = kPrefix + name;
      }
    }
    if (found.empty()) {
      return key + ": \"" + item +
             "\" is not an interface orientation (portrait, portraitUpsideDown, landscapeLeft, "
             "landscapeRight)";
    }
    out.push_back(found);
  }
  if (out.empty()) {
    c.supportedOrientations.reset();
  } else {
    c.supportedOrientations = out;
  }
  return std::nullopt;
}

Error setLocation(const std::string& key, const std::vector<std::optional<double>>& values,
                  size_t given, Config& c) {
  const std::string usage = key +
                            ": expected \"longitude,latitude[,altitude[,horizontal accuracy"
                            "[,vertical accuracy]]]\" in degrees and metres";
  if (given < 2 || given > 5) return usage;
  for (size_t i = 0; i < given; ++i) {
    if (!values[i]) return usage;
  }
  if (std::abs(*values[0]) > 180) return key + ": longitude must lie in [-180, 180]";
  if (std::abs(*values[1]) > 90) return key + ": latitude must lie in [-90, 90]";
  c.longitude = values[0];
  c.latitude = values[1];
  c.altitude = given > 2 ? values[2] : std::nullopt;
  c.horizontalAccuracy = given > 3 ? values[3] : std::nullopt;
  c.verticalAccuracy = given > 4 ? values[4] : std::nullopt;
  return std::nullopt;
}

Error setLocationText(const std::string& key, const std::string& text, Config& c) {
  auto parts = splitCommas(text);
  std::vector<std::optional<double>> values(5);
  for (size_t i = 0; i < parts.size() && i < 5; ++i) values[i] = parseNumber(parts[i]);
  return setLocation(key, values, parts.size(), c);
}

Error setIdleTimeout(const std::string& key, std::optional<double> v, Config& c) {
  if (!v || *v <= 0 || *v > 86400) return key + ": expected a number of seconds in (0, 86400]";
  c.httpIdleTimeoutSeconds = *v;
  return std::nullopt;
}

// One setter per string-valued key, shared by the file and the environment.
using StringSetter = Error (*)(const std::string& key, const std::string& value, Config& c);

struct StringKey {
  const char* fileKey;
  const char* envKey;
  StringSetter set;
};

#define OMRA_HOST_SETTER(field)                               \
  [](const std::string& k, const std::string& v, Config& c) { \
    return setHost(k, v, c.endpoints.field);                  \
  }

// In precedence order: a later key overrides an earlier one (the shared host keys come first).
const std::vector<StringKey>& stringKeys() {
  static const std::vector<StringKey> keys = {
      {"mapsHost", "OMRA_MAPS_HOST",
       [](const std::string& k, const std::string& v, Config& c) -> Error {
         if (auto e = setHost(k, v, c.endpoints.mapsBeta)) return e;
         return setHost(k, v, c.endpoints.mapsProd);
       }},
      {"imageMatcherHost", "OMRA_IMAGE_MATCHER_HOST",
       [](const std::string& k, const std::string& v, Config& c) -> Error {
         if (auto e = setHost(k, v, c.endpoints.imageMatcherBeta)) return e;
         return setHost(k, v, c.endpoints.imageMatcherProd);
       }},
      {"linearOptimizerHost", "OMRA_LINEAR_OPTIMIZER_HOST",
       [](const std::string& k, const std::string& v, Config& c) -> Error {
         if (auto e = setHost(k, v, c.endpoints.linearOptimizerBeta)) return e;
         return setHost(k, v, c.endpoints.linearOptimizerProd);
       }},
      {"mapsBetaHost", "OMRA_MAPS_BETA_HOST", OMRA_HOST_SETTER(mapsBeta)},
      {"mapsProdHost", "OMRA_MAPS_PROD_HOST", OMRA_HOST_SETTER(mapsProd)},
      {"imageMatcherBetaHost", "OMRA_IMAGE_MATCHER_BETA_HOST", OMRA_HOST_SETTER(imageMatcherBeta)},
      {"imageMatcherProdHost", "OMRA_IMAGE_MATCHER_PROD_HOST", OMRA_HOST_SETTER(imageMatcherProd)},
      {"linearOptimizerBetaHost", "OMRA_LINEAR_OPTIMIZER_BETA_HOST",
       OMRA_HOST_SETTER(linearOptimizerBeta)},
      {"linearOptimizerProdHost", "OMRA_LINEAR_OPTIMIZER_PROD_HOST",
       OMRA_HOST_SETTER(linearOptimizerProd)},
      {"recordStore", "OMRA_RECORD_STORE", setRecordStore},
      {"recordOutbox", "OMRA_RECORD_OUTBOX",
       [](const std::string& k, const std::string& v, Config& c) -> Error {
         std::string path = trim(v);
         if (path.empty()) return k + ": must not be empty";
         c.recordOutbox = path;
         return std::nullopt;
       }},
      {"metricsSink", "OMRA_METRICS_SINK", setMetricsSink},
      {"awsRegion", "AWS_REGION", setRegion},
      {nullptr, "OMRA_AWS_REGION", setRegion},  // wins over AWS_REGION
      {"awsAccessKeyId", "AWS_ACCESS_KEY_ID",
       [](const std::string&, const std::string& v, Config& c) -> Error {
         c.aws.accessKeyId = trim(v);
         return std::nullopt;
       }},
      {"awsSecretAccessKey", "AWS_SECRET_ACCESS_KEY",
       [](const std::string&, const std::string& v, Config& c) -> Error {
         c.aws.secretAccessKey = trim(v);
         return std::nullopt;
       }},
      {"awsSessionToken", "AWS_SESSION_TOKEN",
       [](const std::string&, const std::string& v, Config& c) -> Error {
         c.aws.sessionToken = trim(v);
         return std::nullopt;
       }},
      {"modelPath", "OMRA_MODEL_PATH",
       [](const std::string&, const std::string& v, Config& c) -> Error {
         c.modelPath = trim(v);
         return std::nullopt;
       }},
      {"bundleIdentifier", "OMRA_BUNDLE_ID",
       [](const std::string& k, const std::string& v, Config& c) -> Error {
         std::string id = trim(v);
         if (id.empty()) return k + ": must not be empty";
         c.bundleIdentifier = id;
         return std::nullopt;
       }},
      {nullptr, "OMRA_SUPPORTED_ORIENTATIONS",
       [](const std::string& k, const std::string& v, Config& c) {
         return setOrientations(k, splitCommas(v), c);
       }},
      {nullptr, "OMRA_LOCATION",
       [](const std::string& k, const std::string& v, Config& c) {
         return setLocationText(k, v, c);
       }},
      {nullptr, "OMRA_HTTP_IDLE_TIMEOUT",
       [](const std::string& k, const std::string& v, Config& c) {
         return setIdleTimeout(k, parseNumber(v), c);
       }},
      {nullptr, "OMRA_RECORD_OUTBOX_MAX_MB",
       [](const std::string& k, const std::string& v, Config& c) {
         return setOutboxMegabytes(k, parseNumber(v), c);
       }},
      {nullptr, "OMRA_RECORD_FLUSH_TIMEOUT",
       [](const std::string& k, const std::string& v, Config& c) {
         return setFlushTimeout(k, parseNumber(v), c);
       }},
  };
  return keys;
}

#undef OMRA_HOST_SETTER

const char* typeName(const Json& v) { return v.type_name(); }

}  // namespace

EnvLookup processEnv() {
  return [](const std::string& name) -> std::optional<std::string> {
    const char* v = std::getenv(name.c_str());
    if (!v) return std::nullopt;
    return std::string(v);
  };
}

// A configuration is a handful of keys; anything bigger is not one.
constexpr size_t kMaxConfigBytes = 1u << 20;

std::optional<std::string> applyConfigJson(std::string_view text, Config& config) {
  std::string error;
  auto parsed = readJson(text, &error, {kMaxJsonDepth, kMaxConfigBytes});
  if (!parsed) return "the configuration file is not valid JSON: " + error;
  if (!parsed->is_object()) return std::string("the configuration file must hold one JSON object");
  const Json& root = *parsed;
  for (const auto& [key, value] : root.items()) {
    bool known = key == "supportedOrientations" || key == "location" ||
                 key == "httpIdleTimeoutSeconds" || key == "recordOutboxMaxMegabytes" ||
                 key == "recordFlushTimeoutSeconds";
    for (const auto& k : stringKeys()) known = known || (k.fileKey && key == k.fileKey);
    if (!known) return "unknown configuration key \"" + key + "\"";
  }
  for (const auto& k : stringKeys()) {
    if (!k.fileKey || !root.contains(k.fileKey)) continue;
    const Json& v = root[k.fileKey];
    if (!v.is_string()) {
      return std::string(k.fileKey) + ": expected a string, found " + typeName(v);
    }
    if (auto e = k.set(k.fileKey, v.get<std::string>(), config)) return e;
  }
  if (root.contains("supportedOrientations")) {
    const Json& v = root["supportedOrientations"];
    std::vector<std::string> items;
    if (v.is_string()) {
      items = splitCommas(v.get<std::string>());
    } else if (v.is_array()) {
      for (const auto& item : v) {
        if (!item.is_string()) return std::string("supportedOrientations: expected strings");
        items.push_back(item.get<std::string>());
      }
    } else {
      return std::string("supportedOrientations: expected an array of strings");
    }
    if (auto e = setOrientations("supportedOrientations", items, config)) return e;
  }
  if (root.contains("location")) {
    const Json& v = root["location"];
    if (v.is_string()) {
      if (auto e = setLocationText("location", v.get<std::string>(), config)) return e;
    } else if (v.is_object()) {
      static const char* kFields[] = {"longitude", "latitude", "altitude", "horizontalAccuracy",
                                      "verticalAccuracy"};
      std::vector<std::optional<double>> values(5);
      size_t given = 0;
      for (size_t i = 0; i < 5; ++i) {
        if (!v.contains(kFields[i])) break;
        if (!v[kFields[i]].is_number())
          return "location." + std::string(kFields[i]) + ": expected a number";
        values[i] = v[kFields[i]].get<double>();
        given = i + 1;
      }
      if (v.size() != given) {
        return std::string(
            "location: give longitude and latitude, then optionally altitude, "
            "horizontalAccuracy and verticalAccuracy, in that order of need");
      }
      if (auto e = setLocation("location", values, given, config)) return e;
    } else {
      return std::string("location: expected \"lon,lat,alt,hacc,vacc\" or an object");
    }
  }
  if (root.contains("httpIdleTimeoutSeconds")) {
    const Json& v = root["httpIdleTimeoutSeconds"];
    std::optional<double> seconds;
    if (v.is_number()) seconds = v.get<double>();
    if (auto e = setIdleTimeout("httpIdleTimeoutSeconds", seconds, config)) return e;
  }
  const auto numberAt = [&](const char* key) -> std::optional<double> {
    const Json& v = root[key];
    if (v.is_number()) return v.get<double>();
    return std::nullopt;
  };
  if (root.contains("recordOutboxMaxMegabytes")) {
    if (auto e = setOutboxMegabytes("recordOutboxMaxMegabytes",
                                    numberAt("recordOutboxMaxMegabytes"), config)) {
      return e;
    }
  }
  if (root.contains("recordFlushTimeoutSeconds")) {
    if (auto e = setFlushTimeout("recordFlushTimeoutSeconds", numberAt("recordFlushTimeoutSeconds"),
                                 config)) {
      return e;
    }
  }
  return std::nullopt;
}

std::optional<std::string> applyConfigEnv(const EnvLookup& env, Config& config) {
  for (const auto& k : stringKeys()) {
    auto value = env(k.envKey);
    if (!value || trim(*value).empty()) continue;  // empty means unset
    if (auto e = k.set(k.envKey, *value, config)) return e;
  }
  return std::nullopt;
}

std::optional<Config> loadConfig(const EnvLookup& env, std::string* error,
                                 const std::string& defaultFile) {
  auto fail = [&](std::string message) -> std::optional<Config> {
    if (error) *error = std::move(message);
    return std::nullopt;
  };
  Config config;
  std::string path;
  bool required = false;
  if (auto named = env("OMRA_CONFIG"); named && !named->empty()) {
    path = *named;
    required = true;
  } else {
    path = defaultFile;
  }
  if (!path.empty()) {
    std::error_code ec;
    if (std::filesystem::exists(path, ec)) {
      std::ifstream in(path, std::ios::binary);
      std::ostringstream text;
      if (!in || !(text << in.rdbuf())) return fail("cannot read the configuration file " + path);
      if (auto e = applyConfigJson(text.str(), config)) return fail(path + ": " + *e);
    } else if (required) {
      return fail("OMRA_CONFIG names " + path + ", which does not exist");
    }
  }
  if (auto e = applyConfigEnv(env, config)) return fail(*e);
  if (error) error->clear();
  return config;
}

std::optional<Config> loadConfig(std::string* error) { return loadConfig(processEnv(), error); }

std::optional<std::string> defaultRecordOutboxPath(const Config& config, const EnvLookup& env) {
  namespace fs = std::filesystem;
  fs::path base;
  if (auto state = env("XDG_STATE_HOME"); state && !trim(*state).empty()) {
    base = trim(*state);
  } else if (auto home = env("HOME"); home && !trim(*home).empty()) {
    base = fs::path(trim(*home)) / ".local" / "state";
  } else {
    return std::nullopt;
  }
  // One outbox per application: each sends to its own back end.
  std::string app = config.bundleIdentifier.value_or("default");
  for (char& ch : app) {
    const bool plain =
        std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-' || ch == '_';
    if (!plain) ch = '_';
  }
  if (app.empty() || app == "." || app == "..") app = "default";
  return (base / "omrakit" / app / "record-outbox.db").string();
}

}  // namespace omra
