#include "src/platform/store/backend_record_store.h"

#include <algorithm>
#include <exception>
#include <future>

#include "src/platform/store/attribute_json.h"
#include "src/platform/store/item_checks.h"

namespace omra {
namespace {

using Clock = std::chrono::steady_clock;

bool isAccountDigest(const std::string& s) {
  return s.size() == 32 && std::all_of(s.begin(), s.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

// Forwards to the store on behalf of one account. Shares the store; thread-safe as it is.
class AccountView : public RecordStore {
 public:
  AccountView(std::shared_ptr<BackendRecordStore> store, std::string account)
      : store_(std::move(store)), account_(std::move(account)) {}

  std::optional<StoreError> createTable(const TableSchema& schema) override {
    return store_->createTable(schema);
  }
  void save(const std::string& table, Item item, SaveCompletion completion) override {
    store_->saveAs(account_, table, std::move(item), std::move(completion));
  }
  std::optional<StoreError> put(const std::string& table, Item item) override {
    return store_->put(table, std::move(item));
  }
  std::optional<Item> get(const std::string& table, const Item& key,
                          std::optional<StoreError>* error) override {
    return store_->get(table, key, error);
  }
  QueryPage query(const std::string& table, const AttributeValue& hashValue,
                  const std::optional<Item>& startKey, int limit,
                  std::optional<StoreError>* error) override {
    return store_->query(table, hashValue, startKey, limit, error);
  }
  std::optional<StoreError> writeBatch(const std::vector<TableItem>& items) override {
    return store_->writeBatchAs(account_, items);
  }
  bool flush(std::chrono::milliseconds timeout) override { return store_->flush(timeout); }

 protected:
  std::shared_ptr<RecordStore> viewForAccount(const std::string& accountDigest) override {
    return store_->accountView(accountDigest);
  }

 private:
  std::shared_ptr<BackendRecordStore> store_;
  std::string account_;
};

std::string batchWriteUrlOf(const std::string& baseUrl) { return baseUrl + "/records/batch_write"; }

StoreError readOnlyError() {
  return StoreError{"the back end's record store only sends records; it cannot read or put them"};
}

}  // namespace

std::shared_ptr<BackendRecordStore> BackendRecordStore::open(Options options,
                                                             std::shared_ptr<HttpClient> http,
                                                             std::shared_ptr<Logger> logger,
                                                             std::string* error) {
  if (!http) {
    if (error != nullptr) *error = "the backend record store needs an HTTP client";
    return nullptr;
  }
  RecordOutbox::Options outboxOptions;
  outboxOptions.maxBytes = options.outboxMaxBytes;
  outboxOptions.backend = batchWriteUrlOf(options.baseUrl);
  std::unique_ptr<RecordOutbox> outbox =
      RecordOutbox::open(options.outboxPath, outboxOptions, logger.get(), error);
  if (!outbox) return nullptr;
  std::shared_ptr<BackendRecordStore> store(new BackendRecordStore(
      std::move(options), std::move(http), std::move(logger), std::move(outbox)));
  store->worker_ = std::thread([raw = store.get()] { raw->run(); });
  return store;
}

BackendRecordStore::BackendRecordStore(Options options, std::shared_ptr<HttpClient> http,
                                       std::shared_ptr<Logger> logger,
                                       std::unique_ptr<RecordOutbox> outbox)
    : options_(std::move(options)),
      url_(batchWriteUrlOf(options_.baseUrl)),
      http_(std::move(http)),
      logger_(std::move(logger)),
      outbox_(std::move(outbox)),
      backoff_(options_.backoff) {
  const auto now = Clock::now();
  retryAt_ = retryAfterFloor_ = now;
  firstRowAt_ = now - options_.linger;  // rows from an earlier run go out at once
  if (outbox_->rowCount() > 0) {
    log("The record outbox holds " + std::to_string(outbox_->rowCount()) +
        " records from an earlier run; sending them to the back end");
  }
  if (outbox_->otherRows() > 0) {
    log("The record outbox holds " + std::to_string(outbox_->otherRows()) +
        " records written for another back end; they stay until the kit sends to it again");
  }
  publishOutboxCounts();
}

BackendRecordStore::~BackendRecordStore() {
  {
    std::lock_guard lock(shared_->mu);
    shared_->stopping = true;
    shared_->closeDeadline =
        Clock::now() + (onMainQueue() ? std::chrono::milliseconds(0) : options_.closeTimeout);
  }
  shared_->cv.notify_all();
  if (worker_.joinable()) worker_.join();
  const size_t left = outbox_->rowCount();
  if (left > 0) {
    log(std::to_string(left) + " records stay in the record outbox " + outbox_->path() +
        " until the back end can be reached");
  }
}

void BackendRecordStore::log(const std::string& message) const {
  if (logger_) logger_->print(message);
}

bool BackendRecordStore::onMainQueue() const {
  std::shared_ptr<Dispatcher> dispatcher = options_.dispatcher.lock();
  return dispatcher && dispatcher->mainQueue().isCurrent();
}

const TableSchema* BackendRecordStore::schemaFor(const std::string& table) const {
  for (const TableSchema& s : options_.tables) {
    if (s.name == table) return &s;
  }
  return nullptr;
}

std::optional<StoreError> BackendRecordStore::createTable(const TableSchema&) {
  return std::nullopt;
}

void BackendRecordStore::save(const std::string& table, Item item, SaveCompletion completion) {
  saveAs("", table, std::move(item), std::move(completion));
}

void BackendRecordStore::saveAs(const std::string& account, const std::string& table, Item item,
                                SaveCompletion completion) {
  auto refuse = [&](std::string why) {
    if (completion) completion(StoreError{std::move(why)});
  };
  if (!isAccountDigest(account)) {
    return refuse("a record needs the account of the session that writes it");
  }
  const TableSchema* schema = schemaFor(table);
  if (schema == nullptr) return refuse("the back end takes no records for the table " + table);
  if (std::optional<StoreError> e = checkItem(*schema, item)) return refuse(e->message);
  const size_t bytes = itemSizeBytes(item) + table.size() + account.size();
  {
    std::unique_lock lock(shared_->mu);
    if (shared_->stopping) {
      lock.unlock();
      return refuse("the record store is closing");
    }
    if (shared_->pendingBytes + bytes > options_.maxPendingBytes) {
      lock.unlock();
      return refuse("the record outbox cannot keep up; the record is dropped");
    }
    shared_->pending.push_back({account, table, std::move(item), bytes, std::move(completion)});
    shared_->pendingBytes += bytes;
    shared_->stats.peakPendingBytes =
        std::max(shared_->stats.peakPendingBytes, shared_->pendingBytes);
    ++shared_->accepted;
  }
  shared_->cv.notify_all();
}

std::optional<StoreError> BackendRecordStore::put(const std::string&, Item) {
  return readOnlyError();
}

std::optional<Item> BackendRecordStore::get(const std::string&, const Item&,
                                            std::optional<StoreError>* error) {
  if (error != nullptr) *error = readOnlyError();
  return std::nullopt;
}

QueryPage BackendRecordStore::query(const std::string&, const AttributeValue&,
                                    const std::optional<Item>&, int,
                                    std::optional<StoreError>* error) {
  if (error != nullptr) *error = readOnlyError();
  return {};
}

std::optional<StoreError> BackendRecordStore::writeBatch(const std::vector<TableItem>& items) {
  return writeBatchAs("", items);
}

std::optional<StoreError> BackendRecordStore::writeBatchAs(const std::string& account,
                                                           const std::vector<TableItem>& items) {
  if (!isAccountDigest(account)) {
    return StoreError{"a record needs the account of the session that writes it"};
  }
  for (const TableItem& t : items) {
    const TableSchema* schema = schemaFor(t.table);
    if (schema == nullptr)
      return StoreError{"the back end takes no records for the table " + t.table};
    if (std::optional<StoreError> e = checkItem(*schema, t.item)) return e;
  }
  std::vector<std::future<std::optional<StoreError>>> results;
  for (const TableItem& t : items) {
    auto promise = std::make_shared<std::promise<std::optional<StoreError>>>();
    results.push_back(promise->get_future());
    saveAs(account, t.table, t.item,
           [promise](std::optional<StoreError> e) { promise->set_value(std::move(e)); });
  }
  std::optional<StoreError> first;
  for (auto& r : results) {
    std::optional<StoreError> e = r.get();
    if (e && !first) first = std::move(e);
  }
  return first;
}

bool BackendRecordStore::flush(std::chrono::milliseconds timeout) {
  const bool deliveryNeedsThisThread = onMainQueue();
  std::unique_lock lock(shared_->mu);
  Shared& s = *shared_;
  s.nudge = true;
  s.cv.notify_all();
  const auto durable = [&] { return s.pending.empty() && s.inserting == 0; };
  const auto drained = [&] { return durable() && s.stats.outboxRows == 0; };
  const auto deadline = Clock::now() + timeout;
  if (deliveryNeedsThisThread) {
    s.cv.wait_until(lock, deadline, durable);
  } else {
    s.cv.wait_until(lock, deadline, drained);
  }
  return drained();
}

void BackendRecordStore::waitForSaves() {
  std::unique_lock lock(shared_->mu);
  const uint64_t target = shared_->accepted;
  shared_->cv.wait(lock, [&] { return shared_->completed >= target; });
}

std::shared_ptr<RecordStore> BackendRecordStore::accountView(const std::string& accountDigest) {
  return std::make_shared<AccountView>(shared_from_this(), accountDigest);
}

std::shared_ptr<RecordStore> BackendRecordStore::viewForAccount(const std::string& accountDigest) {
  return accountView(accountDigest);
}

BackendRecordStore::Stats BackendRecordStore::stats() const {
  std::lock_guard lock(shared_->mu);
  Stats out = shared_->stats;
  out.pendingSaves = shared_->pending.size() + shared_->inserting;
  out.pendingBytes = shared_->pendingBytes;
  return out;
}

// --- worker thread ---

void BackendRecordStore::publishOutboxCounts() {
  std::lock_guard lock(shared_->mu);
  countOutbox(shared_->stats);
}

void BackendRecordStore::countOutbox(Stats& stats) const {
  stats.outboxRows = outbox_->rowCount();
  stats.outboxBytes = outbox_->fileBytes();
  stats.outboxOtherRows = outbox_->otherRows();
}

void BackendRecordStore::run() {
  Shared& s = *shared_;
  std::unique_lock lock(s.mu);
  while (true) {
    if (!s.pending.empty()) {
      std::vector<PendingSave> saves;
      size_t bytes = 0;
      while (!s.pending.empty() && saves.size() < options_.maxInsertBatch) {
        bytes += s.pending.front().bytes;
        saves.push_back(std::move(s.pending.front()));
        s.pending.pop_front();
      }
      s.pendingBytes -= bytes;
      s.inserting = saves.size();
      const bool wasEmpty = outbox_->rowCount() == 0;
      lock.unlock();
      storePending(saves);
      if (wasEmpty && outbox_->rowCount() > 0) firstRowAt_ = Clock::now();
      lock.lock();
      s.completed += s.inserting;
      s.inserting = 0;
      countOutbox(s.stats);
      s.cv.notify_all();
      continue;
    }
    if (batch_ && s.answer) {
      HttpResponse answer = std::move(*s.answer);
      s.answer.reset();
      lock.unlock();
      handleAnswer(answer);
      batch_.reset();
      lock.lock();
      s.stats.inFlightBodyBytes = 0;
      countOutbox(s.stats);
      s.cv.notify_all();
      continue;
    }
    const auto now = Clock::now();
    if (s.stopping && (outbox_->rowCount() == 0 || now >= s.closeDeadline)) break;
    if (batch_ && now >= answerDeadline_) {
      ++s.requestSeq;  // a late answer finds nobody waiting for it
      batch_.reset();
      s.stats.inFlightBodyBytes = 0;
      lock.unlock();
      failedAttempt(
          "no answer within " + std::to_string(options_.requestTimeout.count() / 1000) + " s",
          std::nullopt);
      lock.lock();
      continue;
    }
    if (s.nudge) {
      s.nudge = false;
      retryAt_ = std::max(now, retryAfterFloor_);
    }
    auto wakeAt = Clock::time_point::max();
    if (batch_) {
      wakeAt = answerDeadline_;
    } else if (outbox_->rowCount() > 0) {
      const bool full = outbox_->rowCount() >= options_.maxBatchItems ||
                        outbox_->storedBytes() >= options_.maxBodyBytes / 2;
      const auto sendAt =
          std::max(retryAt_, full || s.stopping ? now : firstRowAt_ + options_.linger);
      if (now >= sendAt) {
        lock.unlock();
        const bool sent = sendBatch();
        lock.lock();
        if (sent) {
          s.stats.inFlightBodyBytes = batch_ ? batch_->bodyBytes() : 0;
          ++s.stats.requestsSent;
        }
        countOutbox(s.stats);
        s.cv.notify_all();
        continue;
      }
      wakeAt = sendAt;
    }
    if (s.stopping) wakeAt = std::min(wakeAt, s.closeDeadline);
    if (wakeAt == Clock::time_point::max()) {
      s.cv.wait(lock);
    } else {
      s.cv.wait_until(lock, wakeAt);
    }
  }
}

void BackendRecordStore::storePending(std::vector<PendingSave>& saves) {
  std::vector<RecordOutbox::NewRow> rows;
  std::vector<size_t> rowOf(saves.size(), SIZE_MAX);
  std::vector<std::optional<StoreError>> results(saves.size());
  for (size_t i = 0; i < saves.size(); ++i) {
    std::optional<std::string> json = itemToJsonText(saves[i].item);
    if (!json) {
      results[i] = StoreError{"the record holds text that is not valid UTF-8"};
      continue;
    }
    std::string text = std::move(*json);
    if (IngestBatch::singleItemBodyBytes(saves[i].table, text) > options_.maxBodyBytes) {
      results[i] = StoreError{"the record is too large to send to the back end"};
      continue;
    }
    rowOf[i] = rows.size();
    rows.push_back({saves[i].account, saves[i].table, std::move(text)});
  }
  std::vector<std::optional<StoreError>> stored = outbox_->append(rows);
  // Counted before anyone hears of the save, so that stats and flush agree with the completions.
  publishOutboxCounts();
  for (size_t i = 0; i < saves.size(); ++i) {
    if (rowOf[i] != SIZE_MAX) results[i] = std::move(stored[rowOf[i]]);
    if (saves[i].completion) saves[i].completion(std::move(results[i]));
  }
}

bool BackendRecordStore::sendBatch() {
  IngestBatch batch(options_.maxBodyBytes, options_.maxBatchItems);
  std::string account;
  std::vector<int64_t> unusable;
  std::string error;
  const bool read = outbox_->visitOldest(
      options_.maxBatchItems,
      [&](OutboxRow&& row) {
        if (schemaFor(row.table) == nullptr) {
          log("Dropped a record of the table " + row.table +
              " from the record outbox: the back end takes no records for it");
          unusable.push_back(row.id);
          return true;
        }
        if (batch.add(row.id, row.table, row.itemJson)) {
          account = row.account;
          return true;
        }
        if (!batch.empty()) return false;  // full: the rest goes in the next request
        log("Dropped a record of " + row.table + " from the record outbox: too large to send");
        unusable.push_back(row.id);
        return true;
      },
      &error);
  if (!unusable.empty()) removeRows(unusable);
  if (!read) {
    failedAttempt("cannot read the record outbox: " + error, std::nullopt);
    return false;
  }
  if (batch.empty()) {
    // Nothing to send although rows were counted: another process took them.
    if (unusable.empty() && !outbox_->recount()) {
      failedAttempt("cannot count the records in the outbox", std::nullopt);
    }
    return false;
  }

  HttpRequest request;
  request.method = HttpMethod::kPost;
  request.url = url_;
  request.headers["Content-Type"] = "application/json";
  request.headers[options_.accountHeader] = account;
  request.body = batch.body();
  uint64_t seq;
  {
    std::lock_guard lock(shared_->mu);
    seq = ++shared_->requestSeq;
    shared_->answer.reset();
  }
  batch_ = std::move(batch);
  answerDeadline_ = Clock::now() + options_.requestTimeout;
  http_->send(std::move(request), [shared = shared_, seq](HttpResponse response) {
    {
      std::lock_guard lock(shared->mu);
      if (shared->requestSeq != seq) return;
      shared->answer = std::move(response);
    }
    shared->cv.notify_all();
  });
  return true;
}

void BackendRecordStore::failedAttempt(const std::string& why,
                                       std::optional<std::chrono::seconds> retryAfter) {
  int failures;
  {
    std::lock_guard lock(shared_->mu);
    failures = ++shared_->stats.consecutiveFailures;
  }
  const auto now = Clock::now();
  retryAt_ = now + backoff_.next(failures, retryAfter);
  retryAfterFloor_ = retryAfter ? now + *retryAfter : now;
  if (!reportedFailure_) {
    reportedFailure_ = true;
    log("Records cannot reach the back end (" + why + "); " + std::to_string(outbox_->rowCount()) +
        " wait in the record outbox and are sent again with backoff");
  }
}

void BackendRecordStore::removeRows(const std::vector<int64_t>& ids) {
  if (std::optional<StoreError> e = outbox_->remove(ids)) {
    // The rows may go out again later; the back end replaces a record sent twice.
    log(e->message);
    failedAttempt(e->message, std::nullopt);
  }
}

void BackendRecordStore::handleAnswer(const HttpResponse& answer) {
  const IngestOutcome outcome = classifyIngestAnswer(answer);
  const std::vector<int64_t> ids = batch_->rowIds();
  const auto dropped = [&](size_t n) {
    std::lock_guard lock(shared_->mu);
    shared_->stats.recordsDropped += n;
    shared_->stats.consecutiveFailures = 0;
  };
  switch (outcome.kind) {
    case IngestOutcome::Kind::kDelivered: {
      removeRows(ids);
      {
        std::lock_guard lock(shared_->mu);
        shared_->stats.recordsDelivered += ids.size();
        shared_->stats.consecutiveFailures = 0;
      }
      if (reportedFailure_) {
        reportedFailure_ = false;
        log("Records reach the back end again");
      }
      return;
    }
    case IngestOutcome::Kind::kRetry:
      failedAttempt(outcome.message, outcome.retryAfter);
      return;
    case IngestOutcome::Kind::kDropItem:
      if (std::optional<int64_t> row = batch_->rowAt(outcome.table, outcome.index)) {
        log("The back end refused a record of " + outcome.table + " (" + outcome.message +
            "); dropped it");
        removeRows({*row});
        dropped(1);
        return;
      }
      break;  // names no item of this batch: the whole batch is at fault
    case IngestOutcome::Kind::kDropBatch:
      break;
  }
  log("The back end refused " + std::to_string(ids.size()) + " records (" + outcome.message +
      "); dropped them");
  removeRows(ids);
  dropped(ids.size());
}

}  // namespace omra
