#include "tests/platform/store/backend_testutil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

#include "src/cloud/account_http_client.h"
#include "src/cloud/record_item.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/transform_result_model.h"

namespace omra::testing {

void FakeIngestBackend::send(HttpRequest request, Completion completion) {
  IngestCall call;
  call.at = std::chrono::steady_clock::now();
  call.url = request.url;
  call.bodyBytes = request.body.size();
  for (const auto& [name, value] : request.headers) {
    if (name == kAccountHeader) call.account = value;
  }
  const Json body = Json::parse(request.body, nullptr, false);
  if (body.is_object() && body.contains("RequestItems")) {
    for (const auto& [table, puts] : body["RequestItems"].items()) {
      for (const Json& put : puts) {
        const Json& item = put["PutRequest"]["Item"];
        call.items.emplace_back(table, item["SessionId"]["S"].get<std::string>(),
                                std::stoll(item["RecordId"]["N"].get<std::string>()));
      }
    }
  }
  IngestReply reply;
  {
    std::lock_guard lock(mu_);
    const size_t number = calls_.size();
    calls_.push_back(call);
    if (script_) reply = script_(call, number);
    if (reply.status >= 200 && reply.status < 300) {
      for (const auto& [table, session, id] : call.items)
        ++stored_[{call.account, table, session, id}];
    }
  }
  HttpResponse response;
  response.status = reply.status;
  if (reply.status == 0) {
    response.transportError = "Couldn't connect to server";
  } else {
    response.body = reply.body.dump();
    response.json = reply.body;
    response.headers = reply.headers;
  }
  main_.post([completion = std::move(completion), response = std::move(response)]() mutable {
    completion(std::move(response));
  });
}

void FakeIngestBackend::setScript(Script script) {
  std::lock_guard lock(mu_);
  script_ = std::move(script);
}

std::vector<IngestCall> FakeIngestBackend::calls() const {
  std::lock_guard lock(mu_);
  return calls_;
}

std::map<std::tuple<std::string, std::string, std::string, int64_t>, int>
FakeIngestBackend::stored() const {
  std::lock_guard lock(mu_);
  return stored_;
}

size_t FakeIngestBackend::storedCount() const {
  std::lock_guard lock(mu_);
  return stored_.size();
}

Item cameraRecord(const std::string& session, int64_t id, size_t payloadBytes) {
  Item item;
  item["SessionId"] = AttributeValue::string(session);
  item[kRecordIdAttribute] = integerNumber(id);
  item["FrameId"] = integerNumber(id * 20);
  item["Timestamp"] = AttributeValue::numberText("1700000000.25");
  std::map<std::string, std::string> poses;
  for (size_t i = 0; poses.size() * 64 < std::min<size_t>(payloadBytes, 2048); ++i) {
    poses[std::to_string(id * 20 + static_cast<int64_t>(i))] =
        "1.0,0.0,0.0,0.5,0.0,1.0,0.0,1.4,0.0,0.0,1.0,-0.25,0.0,0.0,0.0,1.0,";
  }
  item["Transforms"] = AttributeValue::stringMap(std::move(poses));
  // Larger records carry the rest as one text: cheap to build and to read back.
  if (payloadBytes > 2048)
    item["Padding"] = AttributeValue::string(std::string(payloadBytes - 2048, 'p'));
  return item;
}

std::vector<TableItem> cameraRecords(const std::string& session, int n, int64_t first,
                                     size_t payloadBytes) {
  std::vector<TableItem> out;
  for (int i = 0; i < n; ++i) {
    out.push_back({"MapData-CameraPath", cameraRecord(session, first + i, payloadBytes)});
  }
  return out;
}

std::vector<TableSchema> kitRecordTables() {
  std::vector<TableSchema> out;
  for (TableSchema& s : recordTableSchemas()) {
    if (s.name != TransformResultModel::kTableName) out.push_back(std::move(s));
  }
  return out;
}

BackendRecordStore::Options BackendStoreHarness::options() const {
  BackendRecordStore::Options o;
  o.baseUrl = "http://backend.test/prod";
  o.outboxPath = outboxPath;
  o.tables = kitRecordTables();
  o.accountHeader = kAccountHeader;
  o.linger = std::chrono::milliseconds(5);
  o.backoff.base = std::chrono::milliseconds(5);
  o.backoff.cap = std::chrono::milliseconds(40);
  o.backoff.seed = 7;
  o.closeTimeout = std::chrono::milliseconds(0);
  o.dispatcher = dispatcher;
  return o;
}

std::shared_ptr<BackendRecordStore> BackendStoreHarness::open(
    const BackendRecordStore::Options& options) {
  std::string error;
  auto store = BackendRecordStore::open(options, backend, logger, &error);
  EXPECT_TRUE(store) << error;
  return store;
}

std::vector<std::optional<StoreError>> BackendStoreHarness::saveAll(
    const std::shared_ptr<BackendRecordStore>& store, const std::string& account,
    const std::vector<TableItem>& items) {
  std::shared_ptr<RecordStore> view = storeForAccount(store, account);
  std::vector<std::future<std::optional<StoreError>>> futures;
  for (const TableItem& t : items) {
    auto promise = std::make_shared<std::promise<std::optional<StoreError>>>();
    futures.push_back(promise->get_future());
    view->save(t.table, t.item,
               [promise](std::optional<StoreError> e) { promise->set_value(std::move(e)); });
  }
  std::vector<std::optional<StoreError>> out;
  for (auto& f : futures) out.push_back(f.get());
  return out;
}

bool BackendStoreHarness::waitUntil(const std::function<bool()>& pred,
                                    std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace omra::testing
