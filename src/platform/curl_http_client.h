// The HTTP client on libcurl: every request runs on one worker thread through the multi interface,
// and each completion is posted to the dispatcher's main queue.
#pragma once

#include <memory>
#include <string>

#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/http_client.h"

namespace omra {

struct CurlHttpOptions {
  // A request fails when nothing arrives for this long (and a connection attempt gives up after
  // it). There is no limit on a request's total time.
  double idleTimeoutSeconds = 60;
  // Larger answers fail rather than exhaust memory.
  size_t maxResponseBytes = size_t{256} << 20;
};

// libcurl options beyond a plain request (used to sign AWS requests).
struct CurlRequestExtras {
  std::string awsSigV4;  // CURLOPT_AWS_SIGV4, e.g. "aws:amz:us-east-1:monitoring"
  std::string userPwd;   // CURLOPT_USERPWD, "key:secret"
};

// Owns one worker thread; send() and sendWithExtras() are thread-safe. The dispatcher must outlive
// the client. Destruction completes requests still in flight with the transport error "cancelled".
class CurlHttpClient : public HttpClient {
 public:
  explicit CurlHttpClient(Dispatcher& dispatcher, CurlHttpOptions options = {});
  ~CurlHttpClient() override;
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  void send(HttpRequest request, Completion completion) override;
  void sendWithExtras(HttpRequest request, CurlRequestExtras extras, Completion completion);

  // Completes requests in flight with "cancelled" (posted to the main queue) and stops the worker;
  // requests sent later are dropped unanswered. Call it before the dispatcher goes when work on
  // the dispatcher's queues may still hold the client. Idempotent.
  void shutdown();

  struct Worker;

 private:
  std::unique_ptr<Worker> worker_;
};

// Calls curl_global_init once per process; safe to call from any thread, any number of times.
void ensureCurlGlobalInit();

}  // namespace omra
