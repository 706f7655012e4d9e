// Shared by the record-ingest fault tests and bench_record_ingest: omra-server in process over a
// SQLite file in a temporary folder (stopped and started again on the same port over the same
// file), maps made through its routes, devices that send records the way the kit does (the kit's
// backend store from its own factory, each with its own outbox), and readers of what arrived.
// Free of gtest so that the benchmark links it too. Each object belongs to one test or benchmark;
// the stores and the HTTP recorder are thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/platform/http_client.h"
#include "omrakit/platform/record_store.h"
#include "server/account_quotas.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/memory_logger.h"

namespace omra::server {
class Server;
}

namespace omra::testing {

using Clock = std::chrono::steady_clock;

// A fresh folder under the system's temporary one, removed with the object.
class TempFolder {
 public:
  explicit TempFolder(const std::string& name);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Hands every call to the store inside; subclasses watch or break what they override.
class ForwardingStore : public RecordStore {
 public:
  explicit ForwardingStore(std::shared_ptr<RecordStore> inner) : inner_(std::move(inner)) {}
  std::optional<StoreError> createTable(const TableSchema& schema) override;
  void save(const std::string& table, Item item, SaveCompletion completion) override;
  std::optional<StoreError> put(const std::string& table, Item item) override;
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error) override;
  QueryPage query(const std::string& table, const AttributeValue& hashValue,
                  const std::optional<Item>& startKey, int limit,
                  std::optional<StoreError>* error) override;
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override;
  bool flush(std::chrono::milliseconds timeout) override;
  const std::shared_ptr<RecordStore>& inner() const { return inner_; }

 protected:
  std::shared_ptr<RecordStore> viewForAccount(const std::string& accountDigest) override;

 private:
  std::shared_ptr<RecordStore> inner_;
};

// The back end's store with a switch: while broken, every call fails as a store outage does (the
// server answers 503). onWritten (set before the store is shared) sees every batch written.
// Thread-safe.
class OutageStore : public ForwardingStore {
 public:
  using ForwardingStore::ForwardingStore;
  std::atomic<bool> broken{false};
  std::function<void(const std::vector<TableItem>&)> onWritten;

  std::optional<StoreError> put(const std::string& table, Item item) override;
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error) override;
  QueryPage query(const std::string& table, const AttributeValue& hashValue,
                  const std::optional<Item>& startKey, int limit,
                  std::optional<StoreError>* error) override;
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override;
};

// Keeps what a session saved and whether each save was accepted (durable on the device), then
// saves it on; views for accounts keep capturing. Thread-safe.
class CapturingStore : public ForwardingStore {
 public:
  struct Saved {
    double seconds = 0;  // since the first save
    std::string table;
    Item item;
    std::optional<StoreError> outcome;  // set when the save completed
    bool completed = false;
  };
  using ForwardingStore::ForwardingStore;
  void save(const std::string& table, Item item, SaveCompletion completion) override;
  std::vector<Saved> saved() const;

 protected:
  std::shared_ptr<RecordStore> viewForAccount(const std::string& accountDigest) override;

 private:
  struct Log {
    std::mutex mu;
    bool started = false;
    Clock::time_point first;
    std::vector<Saved> saved;
  };
  CapturingStore(std::shared_ptr<RecordStore> inner, std::shared_ptr<Log> log)
      : ForwardingStore(std::move(inner)), log_(std::move(log)) {}
  std::shared_ptr<Log> log_ = std::make_shared<Log>();
};

// One request as the device's HTTP client saw it.
struct Exchange {
  Clock::time_point sent;
  Clock::time_point answered;
  long status = 0;  // 0: no HTTP answer
  std::optional<long> retryAfterSeconds;
  size_t bodyBytes = 0;
};

// Wraps an HTTP client and keeps every exchange. Thread-safe.
class RecordingHttpClient : public HttpClient {
 public:
  explicit RecordingHttpClient(std::shared_ptr<HttpClient> inner) : inner_(std::move(inner)) {}
  void send(HttpRequest request, Completion completion) override;
  std::vector<Exchange> exchanges() const;
  // Called with each exchange as its answer arrives, before the kit sees the answer.
  void setOnAnswer(std::function<void(const Exchange&)> onAnswer);

 private:
  // Shared with the completions, which may outlive the client.
  struct State {
    std::mutex mu;
    std::vector<Exchange> exchanges;
    std::function<void(const Exchange&)> onAnswer;
  };
  std::shared_ptr<HttpClient> inner_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// The developer-key digest of an account named n.
std::string accountDigest(const std::string& n);

// What the server stored under one session: table -> RecordId -> item.
using StoredRecords = std::map<std::string, std::map<int64_t, Item>>;

// omra-server over a SQLite file in dir. Not thread-safe itself (one owner); the server and
// store it runs are.
class IngestServer {
 public:
  struct Options {
    server::QuotaOptions quotas;
    int httpThreads = 8;
    // Every request line the server logs (thread-safe); none: not logged.
    std::function<void(std::string_view)> log;
    // Sees every batch the store commits, on the server's threads (thread-safe).
    std::function<void(const std::vector<TableItem>&)> onWritten;
  };
  IngestServer(std::string dir, Options options);
  ~IngestServer();

  // Opens the store file and serves: on a free port the first time, on the same port afterwards.
  bool start(std::string* error);
  // Stops serving and closes the store file.
  void stop();
  bool running() const { return server_ != nullptr; }
  std::string url() const;  // "http://127.0.0.1:PORT"
  OutageStore& store() { return *store_; }
  const std::string& storePath() const { return path_; }

  // A new map of the account through POST /prod/maps/create_map; its UUID.
  std::optional<std::string> createMap(const std::string& account, const std::string& mapId,
                                       std::string* error);
  // The records of the session in the five kit tables (the store must be open).
  std::optional<StoredRecords> recordsOf(const std::string& session, std::string* error);

 private:
  std::string dir_;
  std::string path_;
  Options options_;
  int port_ = 0;
  std::shared_ptr<OutageStore> store_;
  std::unique_ptr<server::Server> server_;
};

// A device's kit services as the kit builds them (tools::makeDeviceKitServices): one dispatcher,
// one HTTP client (recorded) and the kit's backend store at backendUrl + "/prod" with its outbox.
// Members go in the kit's order: the store before the HTTP client, the client before the
// dispatcher.
struct DeviceKit {
  std::shared_ptr<AsioDispatcher> dispatcher;
  std::shared_ptr<RecordingHttpClient> http;
  std::shared_ptr<void> stopHttpFirst;
  std::shared_ptr<MemoryLogger> logger;
  std::shared_ptr<RecordStore> records;
  ~DeviceKit();
};

// The kit's backend store as its factory builds it from the configuration (recordStore
// "backend:" + backendUrl + "/prod", recordOutbox, recordFlushTimeoutSeconds).
std::shared_ptr<RecordStore> openKitRecordStore(const std::string& backendUrl,
                                                const std::string& outboxPath,
                                                std::shared_ptr<HttpClient> http,
                                                std::shared_ptr<Dispatcher> dispatcher,
                                                std::shared_ptr<Logger> logger,
                                                double flushTimeoutSeconds, std::string* error);

std::unique_ptr<DeviceKit> openDeviceKit(const std::string& backendUrl,
                                         const std::string& outboxPath, std::string* error,
                                         double httpIdleSeconds = 10);

// One record by its key.
struct RecordKey {
  std::string table;
  std::string session;
  int64_t recordId = 0;
  auto operator<=>(const RecordKey&) const = default;
};

// The keys of every row an outbox file holds, read without the kit.
std::optional<std::vector<RecordKey>> outboxRows(const std::string& outboxPath, std::string* error);
// The keys of what the server stored under the session.
std::vector<RecordKey> keysOf(const StoredRecords& stored, const std::string& session);

// n records of the session cycling through the five kit tables, RecordIds first, first + 1, ...
std::vector<TableItem> fiveTableRecords(const std::string& session, int64_t first, size_t n);

// Polls pred every few milliseconds until it holds or timeout passes.
bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

}  // namespace omra::testing
