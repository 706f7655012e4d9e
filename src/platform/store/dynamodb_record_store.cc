#include "src/platform/store/dynamodb_record_store.h"

#include <curl/curl.h>

#include <algorithm>
#include <mutex>
#include <random>

#include "src/foundation/json_reader.h"
#include "src/platform/store/attribute_json.h"
#include "src/platform/store/item_checks.h"

namespace omra {
namespace {

constexpr const char* kTargetPrefix = "DynamoDB_20120810.";

size_t appendBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// "com.amazonaws.dynamodb.v20120810#ResourceNotFoundException" -> "ResourceNotFoundException".
std::string errorType(const Json& answer) {
  const auto t = answer.find("__type");
  if (t == answer.end() || !t->is_string()) return {};
  const std::string full = t->get<std::string>();
  const auto hash = full.rfind('#');
  return hash == std::string::npos ? full : full.substr(hash + 1);
}

std::string errorMessage(const Json& answer) {
  for (const char* key : {"message", "Message"}) {
    const auto m = answer.find(key);
    if (m != answer.end() && m->is_string()) return m->get<std::string>();
  }
  return {};
}

bool retryableType(const std::string& type) {
  return type == "ThrottlingException" || type == "ProvisionedThroughputExceededException" ||
         type == "RequestLimitExceeded" || type == "InternalServerError" ||
         type == "ServiceUnavailable";
}

std::string keyTypeText(KeyType t) { return t == KeyType::kString ? "S" : "N"; }

}  // namespace

struct DynamoDbRecordStore::Connection {
  CURL* curl = nullptr;
  Connection() : curl(curl_easy_init()) {}
  ~Connection() { curl_easy_cleanup(curl); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
};

DynamoDbRecordStore::DynamoDbRecordStore(Options options, std::shared_ptr<Logger> logger)
    : options_(std::move(options)), logger_(std::move(logger)) {
  static std::once_flag curlInit;
  std::call_once(curlInit, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  endpoint_ = options_.endpoint.empty() ? "https://dynamodb." + options_.region + ".amazonaws.com"
                                        : options_.endpoint;
  while (!endpoint_.empty() && endpoint_.back() == '/') endpoint_.pop_back();
  if (options_.accessKeyId.empty()) {
    options_.accessKeyId = "omra-local";
    options_.secretAccessKey = "omra-local";
  }
  if (options_.maxAttempts < 1) options_.maxAttempts = 1;
  const int threads = options_.saveThreads < 1 ? 1 : options_.saveThreads;
  for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { workerLoop(); });
}

DynamoDbRecordStore::~DynamoDbRecordStore() {
  {
    std::lock_guard lock(queueMu_);
    stopping_ = true;
  }
  queueCv_.notify_all();
  for (auto& w : workers_) w.join();
}

void DynamoDbRecordStore::log(const std::string& message) const {
  if (logger_) logger_->systemLog(LogLevel::kInfo, message);
}

std::optional<Json> DynamoDbRecordStore::call(Connection& connection, const std::string& operation,
                                              const Json& request,
                                              std::optional<StoreError>* error) {
  const std::string body = dumpJson(request);
  const std::string target = std::string("X-Amz-Target: ") + kTargetPrefix + operation;
  const std::string sigv4 = "aws:amz:" + options_.region + ":dynamodb";
  const std::string userPwd = options_.accessKeyId + ":" + options_.secretAccessKey;
  thread_local std::mt19937 rng{std::random_device{}()};

  for (int attempt = 1;; ++attempt) {
    CURL* c = connection.curl;
    curl_easy_reset(c);
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, "Content-Type: application/x-amz-json-1.0");
    headers = curl_slist_append(headers, target.c_str());
    headers = curl_slist_append(headers, "Expect:");
    std::string tokenHeader;
    if (!options_.sessionToken.empty()) {
      tokenHeader = "X-Amz-Security-Token: " + options_.sessionToken;
      headers = curl_slist_append(headers, tokenHeader.c_str());
    }
    std::string answer;
    char curlError[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(c, CURLOPT_URL, (endpoint_ + "/").c_str());
    curl_easy_setopt(c, CURLOPT_POST, 1L);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(c, CURLOPT_AWS_SIGV4, sigv4.c_str());
    curl_easy_setopt(c, CURLOPT_USERPWD, userPwd.c_str());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, curlError);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(options_.connectTimeout.count()));
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.requestTimeout.count()));
    const CURLcode rc = curl_easy_perform(c);
    curl_slist_free_all(headers);
    long status = 0;
    if (rc == CURLE_OK) curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);

    StoreError failure;
    bool retry = false;
    if (rc != CURLE_OK) {
      failure.message = "Unable to reach DynamoDB at " + endpoint_ + ": " +
                        (curlError[0] != 0 ? curlError : curl_easy_strerror(rc));
      retry = true;
    } else {
      std::string why;
      std::optional<Json> json = readJson(answer, &why);
      if (status == 200 && json && json->is_object()) return json;
      if (json && json->is_object() && !errorType(*json).empty()) {
        const std::string type = errorType(*json);
        failure.message = type + ": " + errorMessage(*json);
        retry = status >= 500 || retryableType(type);
      } else {
        // Quoted through the encoder: the answer's bytes may be anything.
        failure.message = "Unreadable answer from DynamoDB (HTTP " + std::to_string(status) +
                          "): " + why + ": " + dumpJson(Json(answer.substr(0, 120)));
        retry = status >= 500;
      }
    }
    if (!retry || attempt >= options_.maxAttempts) {
      if (error != nullptr) *error = std::move(failure);
      return std::nullopt;
    }
    // Exponential backoff with jitter: a random wait in [1/2, 1] of base * 2^(attempt-1).
    const auto ceiling = options_.backoffBase * (1 << (attempt - 1));
    std::uniform_int_distribution<int64_t> pick(ceiling.count() / 2, ceiling.count());
    log(operation + " attempt " + std::to_string(attempt) + " failed (" + failure.message +
        "); retrying");
    std::this_thread::sleep_for(std::chrono::milliseconds(pick(rng)));
  }
}

std::optional<Json> DynamoDbRecordStore::callPooled(const std::string& operation,
                                                    const Json& request,
                                                    std::optional<StoreError>* error) {
  std::unique_ptr<Connection> connection;
  {
    std::lock_guard lock(poolMu_);
    if (!pool_.empty()) {
      connection = std::move(pool_.back());
      pool_.pop_back();
    }
  }
  if (!connection) connection = std::make_unique<Connection>();
  auto result = call(*connection, operation, request, error);
  std::lock_guard lock(poolMu_);
  pool_.push_back(std::move(connection));
  return result;
}

std::optional<StoreError> DynamoDbRecordStore::createTable(const TableSchema& schema) {
  std::optional<StoreError> error;
  const Json describe = {{"TableName", schema.name}};
  bool created = false;
  const auto deadline = std::chrono::steady_clock::now() + options_.tableActiveTimeout;
  while (true) {
    error.reset();
    auto answer = callPooled("DescribeTable", describe, &error);
    if (answer) {
      const Json& table = (*answer)["Table"];
      const auto status = table.is_object() ? table.find("TableStatus") : table.end();
      if (status != table.end() && status->is_string() && *status == "ACTIVE") {
        std::lock_guard lock(schemaMu_);
        schemas_[schema.name] = schema;
        return std::nullopt;
      }
    } else if (!created && error && error->message.rfind("ResourceNotFoundException", 0) == 0) {
      Json attributes = Json::array();
      Json keys = Json::array();
      attributes.push_back(
          {{"AttributeName", schema.hashKey}, {"AttributeType", keyTypeText(schema.hashType)}});
      keys.push_back({{"AttributeName", schema.hashKey}, {"KeyType", "HASH"}});
      if (schema.rangeKey) {
        attributes.push_back({{"AttributeName", *schema.rangeKey},
                              {"AttributeType", keyTypeText(schema.rangeType)}});
        keys.push_back({{"AttributeName", *schema.rangeKey}, {"KeyType", "RANGE"}});
      }
      const Json create = {{"TableName", schema.name},
                           {"AttributeDefinitions", attributes},
                           {"KeySchema", keys},
                           {"BillingMode", "PAY_PER_REQUEST"}};
      error.reset();
      if (!callPooled("CreateTable", create, &error) && error &&
          error->message.rfind("ResourceInUseException", 0) != 0) {
        return error;  // anything but "someone else is creating it"
      }
      created = true;
    } else if (!answer) {
      return error;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      return StoreError{"Table " + schema.name + " did not become ACTIVE in time"};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

std::optional<TableSchema> DynamoDbRecordStore::schemaFor(const std::string& table,
                                                          std::optional<StoreError>* error) {
  {
    std::lock_guard lock(schemaMu_);
    if (auto it = schemas_.find(table); it != schemas_.end()) return it->second;
  }
  std::optional<StoreError> e;
  auto answer = callPooled("DescribeTable", Json{{"TableName", table}}, &e);
  if (!answer) {
    if (error != nullptr) *error = std::move(e);
    return std::nullopt;
  }
  const Json& t = (*answer)["Table"];
  TableSchema schema;
  schema.name = table;
  std::map<std::string, KeyType> types;
  const auto defs = t.is_object() ? t.find("AttributeDefinitions") : t.end();
  if (defs != t.end() && defs->is_array()) {
    for (const Json& d : *defs) {
      if (!d.is_object() || !d.contains("AttributeName") || !d["AttributeName"].is_string()) {
        continue;
      }
      const bool s = d.contains("AttributeType") && d["AttributeType"] == "S";
      types[d["AttributeName"].get<std::string>()] = s ? KeyType::kString : KeyType::kNumber;
    }
  }
  const auto keys = t.is_object() ? t.find("KeySchema") : t.end();
  if (keys != t.end() && keys->is_array()) {
    for (const Json& k : *keys) {
      if (!k.is_object() || !k.contains("AttributeName") || !k["AttributeName"].is_string() ||
          !k.contains("KeyType")) {
        continue;
      }
      const std::string name = k["AttributeName"].get<std::string>();
      if (k["KeyType"] == "HASH") {
        schema.hashKey = name;
        schema.hashType = types[name];
      } else if (k["KeyType"] == "RANGE") {
        schema.rangeKey = name;
        schema.rangeType = types[name];
      }
    }
  }
  if (schema.hashKey.empty()) {
    if (error != nullptr) *error = StoreError{"Unreadable table description of " + table};
    return std::nullopt;
  }
  std::lock_guard lock(schemaMu_);
  schemas_[table] = schema;
  return schema;
}

std::optional<StoreError> DynamoDbRecordStore::putWith(Connection& connection,
                                                       const std::string& table, const Item& item) {
  if (auto e = checkItemContents(item)) return e;
  std::optional<StoreError> error;
  const Json request = {{"TableName", table}, {"Item", itemToJson(item)}};
  if (!call(connection, "PutItem", request, &error)) return error;
  return std::nullopt;
}

void DynamoDbRecordStore::save(const std::string& table, Item item, SaveCompletion completion) {
  {
    std::lock_guard lock(queueMu_);
    pending_.push_back({table, std::move(item), std::move(completion)});
    ++queued_;
  }
  queueCv_.notify_one();
}

void DynamoDbRecordStore::waitForSaves() {
  std::unique_lock lock(queueMu_);
  const uint64_t target = queued_;
  queueCv_.wait(lock, [&] { return completed_ >= target; });
}

void DynamoDbRecordStore::workerLoop() {
  Connection connection;
  std::unique_lock lock(queueMu_);
  while (true) {
    queueCv_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
    if (pending_.empty()) return;
    PendingSave job = std::move(pending_.front());
    pending_.pop_front();
    lock.unlock();
    auto error = putWith(connection, job.table, job.item);
    if (job.completion) job.completion(std::move(error));
    lock.lock();
    ++completed_;
    queueCv_.notify_all();
  }
}

std::optional<StoreError> DynamoDbRecordStore::put(const std::string& table, Item item) {
  if (auto e = checkItemContents(item)) return e;
  std::optional<StoreError> error;
  const Json request = {{"TableName", table}, {"Item", itemToJson(item)}};
  if (!callPooled("PutItem", request, &error)) return error;
  return std::nullopt;
}

std::optional<StoreError> DynamoDbRecordStore::writeBatch(const std::vector<TableItem>& items) {
  // The service refuses a batch naming one key twice: the last item of a key wins, as it would
  // written one by one.
  std::vector<std::pair<std::string, std::string>> keys;  // table and key text of each item
  std::map<std::pair<std::string, std::string>, size_t> lastOfKey;
  for (size_t i = 0; i < items.size(); ++i) {
    std::optional<StoreError> e;
    const auto schema = schemaFor(items[i].table, &e);
    if (!schema) return e;
    if (auto bad = checkItem(*schema, items[i].item)) return bad;
    keys.emplace_back(items[i].table, itemToJson(keyOf(*schema, items[i].item)).dump());
    lastOfKey[keys.back()] = i;
  }
  std::vector<const TableItem*> unique;
  for (size_t i = 0; i < items.size(); ++i) {
    if (lastOfKey.at(keys[i]) == i) unique.push_back(&items[i]);
  }
  constexpr size_t kChunk = 25;  // BatchWriteItem's limit
  thread_local std::mt19937 rng{std::random_device{}()};
  for (size_t begin = 0; begin < unique.size(); begin += kChunk) {
    Json requestItems = Json::object();
    for (size_t i = begin; i < std::min(unique.size(), begin + kChunk); ++i) {
      requestItems[unique[i]->table].push_back(
          Json{{"PutRequest", Json{{"Item", itemToJson(unique[i]->item)}}}});
    }
    // Items the service did not take this time (throttled) go again after a growing wait.
    for (int attempt = 1;; ++attempt) {
      std::optional<StoreError> e;
      auto answer = callPooled("BatchWriteItem", Json{{"RequestItems", requestItems}}, &e);
      if (!answer) return e;
      const auto left = answer->find("UnprocessedItems");
      if (left == answer->end() || !left->is_object() || left->empty()) break;
      if (attempt >= options_.maxAttempts * 4) {
        return StoreError{"BatchWriteItem left items unprocessed after " + std::to_string(attempt) +
                          " attempts"};
      }
      requestItems = *left;
      const auto ceiling = options_.backoffBase * (1 << std::min(attempt - 1, 10));
      std::uniform_int_distribution<int64_t> pick(ceiling.count() / 2, ceiling.count());
      std::this_thread::sleep_for(std::chrono::milliseconds(pick(rng)));
    }
  }
  return std::nullopt;
}

std::optional<Item> DynamoDbRecordStore::get(const std::string& table, const Item& key,
                                             std::optional<StoreError>* error) {
  if (error != nullptr) error->reset();
  std::optional<StoreError> e;
  const Json request = {{"TableName", table}, {"Key", itemToJson(key)}, {"ConsistentRead", true}};
  auto answer = callPooled("GetItem", request, &e);
  if (!answer) {
    if (error != nullptr) *error = std::move(e);
    return std::nullopt;
  }
  const auto found = answer->find("Item");
  if (found == answer->end()) return std::nullopt;
  std::string why;
  auto item = itemFromJson(*found, &why);
  if (!item && error != nullptr) *error = StoreError{"Unreadable item from DynamoDB: " + why};
  return item;
}

QueryPage DynamoDbRecordStore::query(const std::string& table, const AttributeValue& hashValue,
                                     const std::optional<Item>& startKey, int limit,
                                     std::optional<StoreError>* error) {
  if (error != nullptr) error->reset();
  auto fail = [&](std::optional<StoreError> e) {
    if (error != nullptr) *error = std::move(e);
    return QueryPage{};
  };
  std::optional<StoreError> e;
  const auto schema = schemaFor(table, &e);
  if (!schema) return fail(std::move(e));
  Json request = {{"TableName", table},
                  {"KeyConditionExpression", "#h = :h"},
                  {"ExpressionAttributeNames", {{"#h", schema->hashKey}}},
                  {"ExpressionAttributeValues", {{":h", attributeToJson(hashValue)}}},
                  {"ConsistentRead", true}};
  if (limit > 0) request["Limit"] = limit;
  if (startKey) request["ExclusiveStartKey"] = itemToJson(*startKey);
  auto answer = callPooled("Query", request, &e);
  if (!answer) return fail(std::move(e));
  QueryPage page;
  const auto items = answer->find("Items");
  if (items != answer->end() && items->is_array()) {
    for (const Json& j : *items) {
      std::string why;
      auto item = itemFromJson(j, &why);
      if (!item) return fail(StoreError{"Unreadable item from DynamoDB: " + why});
      page.items.push_back(std::move(*item));
    }
  }
  const auto last = answer->find("LastEvaluatedKey");
  if (last != answer->end()) {
    std::string why;
    page.lastEvaluatedKey = itemFromJson(*last, &why);
    if (!page.lastEvaluatedKey) return fail(StoreError{"Unreadable LastEvaluatedKey: " + why});
  }
  return page;
}

}  // namespace omra
