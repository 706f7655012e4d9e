#include "src/platform/curl_http_client.h"

#include <curl/curl.h>

#include <atomic>
#include <cctype>
#include <cmath>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "src/foundation/fatal.h"
#include "src/foundation/json_reader.h"

namespace omra {

void ensureCurlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("curl_global_init failed");
  });
}

namespace {

struct Transfer {
  HttpRequest request;
  CurlRequestExtras extras;
  HttpClient::Completion completion;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string body;
  size_t maxBytes = 0;
  bool tooLarge = false;
  char error[CURL_ERROR_SIZE] = {};

  ~Transfer() {
    if (headers) curl_slist_free_all(headers);
    if (easy) curl_easy_cleanup(easy);
  }
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const size_t n = size * count;
  if (t->body.size() + n > t->maxBytes) {
    t->tooLarge = true;
    return 0;  // makes curl fail the transfer with a write error
  }
  t->body.append(data, n);
  return n;
}

// The final answer's headers (not those of redirects), names in lower case.
std::map<std::string, std::string> responseHeaders(CURL* easy) {
  std::map<std::string, std::string> out;
  curl_header* prev = nullptr;
  while (curl_header* h = curl_easy_nextheader(easy, CURLH_HEADER, -1, prev)) {
    std::string name = h->name;
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    out.insert_or_assign(std::move(name), h->value);
    prev = h;
  }
  return out;
}

}  // namespace

struct CurlHttpClient::Worker {
  Worker(Dispatcher& d, CurlHttpOptions o) : dispatcher(d), options(o) {
    ensureCurlGlobalInit();
    multi = curl_multi_init();
    if (!multi) fatalError("curl_multi_init failed");
    thread = std::thread([this] { run(); });
  }

  ~Worker() {
    stop();
    curl_multi_cleanup(multi);
  }

  // Completes what is in flight with "cancelled" and joins the thread; later requests are
  // dropped without touching the dispatcher. Idempotent; not from the worker thread.
  void stop() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    std::lock_guard<std::mutex> lock(joinMutex);
    if (!thread.joinable()) return;
    curl_multi_wakeup(multi);
    thread.join();
    stopped.store(true, std::memory_order_release);
  }

  void enqueue(std::unique_ptr<Transfer> t) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (!stopping) {
        incoming.push_back(std::move(t));
        t = nullptr;
      }
    }
    if (t) return;  // stopping: the dispatcher may be going, so nothing is posted
    curl_multi_wakeup(multi);
  }

  static HttpResponse failure(std::string why) {
    HttpResponse r;
    r.transportError = std::move(why);
    return r;
  }

  void complete(std::unique_ptr<Transfer> t, HttpResponse response) {
    auto completion = std::move(t->completion);
    t.reset();  // frees the curl handle here, on the worker (or the caller when never started)
    // Once stopped the dispatcher may be gone: the completion is dropped unanswered.
    if (!completion || stopped.load(std::memory_order_acquire)) return;
    dispatcher.mainQueue().post(
        [completion = std::move(completion), response = std::move(response)]() mutable {
          completion(std::move(response));
        });
  }

  // Configures the easy handle; an error text when that fails.
  std::string setUp(Transfer& t) {
    t.easy = curl_easy_init();
    if (!t.easy) return "curl_easy_init failed";
    CURL* e = t.easy;
    const long idle = std::max(1L, static_cast<long>(std::ceil(options.idleTimeoutSeconds)));
    t.maxBytes = options.maxResponseBytes;
    bool ok = true;
    auto set = [&](CURLoption opt, auto value) {
      ok = ok && curl_easy_setopt(e, opt, value) == CURLE_OK;
    };
    set(CURLOPT_URL, t.request.url.c_str());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_PRIVATE, static_cast<void*>(&t));
    set(CURLOPT_ERRORBUFFER, t.error);
    set(CURLOPT_WRITEFUNCTION, &onBody);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&t));
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, idle);
    set(CURLOPT_CONNECTTIMEOUT, idle);
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, 10L);
    if (t.request.method == HttpMethod::kPost) {
      set(CURLOPT_POST, 1L);
      set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.request.body.size()));
      set(CURLOPT_POSTFIELDS, t.request.body.c_str());
      // No 100-continue round trip for large bodies. Not on signed requests: curl would sign
      // the suppressed header, and the server would never see it.
      if (t.extras.awsSigV4.empty()) t.headers = curl_slist_append(t.headers, "Expect:");
    } else {
      set(CURLOPT_HTTPGET, 1L);
    }
    for (const auto& [name, value] : t.request.headers) {
      // "Name;" is curl's way to send a header with an empty value.
      std::string line = value.empty() ? name + ";" : name + ": " + value;
      curl_slist* next = curl_slist_append(t.headers, line.c_str());
      if (!next) return "out of memory";
      t.headers = next;
    }
    if (t.headers) set(CURLOPT_HTTPHEADER, t.headers);
    if (!t.extras.awsSigV4.empty()) set(CURLOPT_AWS_SIGV4, t.extras.awsSigV4.c_str());
    if (!t.extras.userPwd.empty()) set(CURLOPT_USERPWD, t.extras.userPwd.c_str());
    if (!ok) return "unsupported request options";
    return {};
  }

  void finish(Transfer* raw, CURLcode code) {
    curl_multi_remove_handle(multi, raw->easy);
    active.erase(raw);
    std::unique_ptr<Transfer> t(raw);
    HttpResponse r;
    if (code != CURLE_OK) {
      if (t->tooLarge) {
        r.transportError = "response larger than " + std::to_string(t->maxBytes) + " bytes";
      } else {
        r.transportError = curl_easy_strerror(code);
        if (t->error[0]) r.transportError += std::string(": ") + t->error;
      }
    } else {
      long status = 0;
      curl_easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
      r.headers = responseHeaders(t->easy);
      r.status = status;
      r.body = std::move(t->body);
      // Read once here; a refused body is marked so that nobody reads it again.
      if (!r.body.empty()) r.json = readJson(r.body).value_or(Json(Json::value_t::discarded));
    }
    complete(std::move(t), std::move(r));
  }

  void run() {
    while (true) {
      std::deque<std::unique_ptr<Transfer>> batch;
      bool stop;
      {
        std::lock_guard<std::mutex> lock(mutex);
        batch.swap(incoming);
        stop = stopping;
      }
      for (auto& t : batch) {
        if (stop) {
          complete(std::move(t), failure("cancelled"));
          continue;
        }
        std::string error = setUp(*t);
        if (error.empty() && curl_multi_add_handle(multi, t->easy) != CURLM_OK) {
          error = "curl_multi_add_handle failed";
        }
        if (!error.empty()) {
          complete(std::move(t), failure(error));
          continue;
        }
        active.insert(t.release());
      }
      if (stop) break;
      int running = 0;
      curl_multi_perform(multi, &running);
      int left = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
        if (msg->msg != CURLMSG_DONE) continue;
        void* priv = nullptr;
        curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, &priv);
        finish(static_cast<Transfer*>(priv), msg->data.result);
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    for (Transfer* raw : active) {
      curl_multi_remove_handle(multi, raw->easy);
      complete(std::unique_ptr<Transfer>(raw), failure("cancelled"));
    }
    active.clear();
  }

  Dispatcher& dispatcher;
  const CurlHttpOptions options;
  CURLM* multi = nullptr;
  std::thread thread;
  std::mutex mutex;  // guards incoming and stopping
  std::deque<std::unique_ptr<Transfer>> incoming;
  bool stopping = false;
  std::mutex joinMutex;                  // serialises stop()
  std::atomic<bool> stopped{false};      // the thread has been joined
  std::unordered_set<Transfer*> active;  // worker thread only
};

CurlHttpClient::CurlHttpClient(Dispatcher& dispatcher, CurlHttpOptions options)
    : worker_(std::make_unique<Worker>(dispatcher, options)) {}

CurlHttpClient::~CurlHttpClient() = default;

void CurlHttpClient::shutdown() { worker_->stop(); }

void CurlHttpClient::send(HttpRequest request, Completion completion) {
  sendWithExtras(std::move(request), {}, std::move(completion));
}

void CurlHttpClient::sendWithExtras(HttpRequest request, CurlRequestExtras extras,
                                    Completion completion) {
  auto t = std::make_unique<Transfer>();
  t->request = std::move(request);
  t->extras = std::move(extras);
  t->completion = std::move(completion);
  worker_->enqueue(std::move(t));
}

}  // namespace omra
