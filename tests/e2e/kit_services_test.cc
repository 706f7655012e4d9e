// Shutting down the services a run shares while their work is still in flight: the dispatcher must
// never be released from one of its own threads (that is a fatal error, and aborts the test).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "omrakit/platform/http_client.h"
#include "src/platform/store/memory_record_store.h"
#include "tools/runner/session_driver.h"

namespace omra::tools {
namespace {

TEST(KitServices, ShutdownWithWorkInFlightOnEveryQueue) {
  // Each round leaves the last references to the HTTP client in work that is still queued: on the
  // pool, on a serial queue, on the main queue and in an unanswered request.
  std::atomic<int> ran{0};
  for (int round = 0; round < 40; ++round) {
    KitServices services = makeKitServices(std::make_shared<MemoryRecordStore>(),
                                           "http://127.0.0.1:9", /*httpIdleSeconds=*/1);
    std::shared_ptr<HttpClient> http = services.http;
    services.dispatcher->background([http, &ran] {
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
      ++ran;
    });
    auto queue = services.dispatcher->makeSerialQueue("com.omra.test.shutdown");
    queue->async([http, &ran] { ++ran; });
    services.dispatcher->mainQueue().post([http, &ran] {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      ++ran;
    });
    HttpRequest request;
    request.url = "http://127.0.0.1:9/unreachable";
    http->send(request, [http](HttpResponse) {});
    http.reset();
    queue.reset();
  }
  EXPECT_EQ(ran.load(), 3 * 40);  // queued work still ran before its dispatcher went
}

}  // namespace
}  // namespace omra::tools
