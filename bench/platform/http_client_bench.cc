// Request latency and throughput of the libcurl client against a loopback server, with
// cpp-httplib's own blocking client as the peer for one request at a time.
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "src/platform/asio_dispatcher.h"
#include "src/platform/curl_http_client.h"

using namespace omra;
using Clock = std::chrono::steady_clock;

namespace {

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Sends total requests keeping inFlight of them outstanding; returns the elapsed time.
Clock::duration run(CurlHttpClient& client, const std::string& url, int total, int inFlight) {
  std::mutex m;
  std::condition_variable cv;
  int sent = 0, done = 0, failed = 0;
  std::function<void()> sendOne;
  sendOne = [&] {
    client.postJson(url, Json{{"map_id", "m"}, {"n", sent}}, [&](HttpResponse r) {
      std::lock_guard<std::mutex> lock(m);
      if (r.status != 200 || !r.json) ++failed;
      ++done;
      if (sent < total) {
        ++sent;
        sendOne();
      }
      cv.notify_all();
    });
  };
  auto start = Clock::now();
  {
    std::lock_guard<std::mutex> lock(m);
    for (; sent < inFlight && sent < total;) {
      ++sent;
      sendOne();
    }
  }
  std::unique_lock<std::mutex> lock(m);
  cv.wait(lock, [&] { return done == total; });
  auto took = Clock::now() - start;
  if (failed) std::fprintf(stderr, "%d requests failed\n", failed);
  return took;
}

}  // namespace

int main() {
  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(24); };
  // Without it, Nagle's algorithm and delayed ACKs add ~40 ms to every kept-alive answer.
  server.set_tcp_nodelay(true);
  server.Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(req.body, "application/json");
  });
  int port = server.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { server.listen_after_bind(); });
  while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const std::string base = "http://127.0.0.1:" + std::to_string(port);

  AsioDispatcher dispatcher;
  CurlHttpClient client(dispatcher);
  run(client, base + "/echo", 200, 16);  // warm up: connections opened and cached

  constexpr int kSerial = 500;
  auto serial = run(client, base + "/echo", kSerial, 1);
  constexpr int kParallel = 3000;
  auto parallel = run(client, base + "/echo", kParallel, 16);

  httplib::Client peer("127.0.0.1", port);
  peer.set_keep_alive(true);
  peer.set_tcp_nodelay(true);
  auto start = Clock::now();
  for (int i = 0; i < kSerial; ++i) {
    auto r = peer.Post("/echo", Json{{"map_id", "m"}, {"n", i}}.dump(), "application/json");
    if (!r || r->status != 200) std::fprintf(stderr, "peer request failed\n");
  }
  auto peerSerial = Clock::now() - start;

  server.stop();
  serving.join();

  const double latency = seconds(serial) / kSerial * 1e6;
  const double peerLatency = seconds(peerSerial) / kSerial * 1e6;
  std::printf("figure http_post_latency %.1f us\n", latency);
  std::printf("figure http_post_latency_peer_httplib %.1f us\n", peerLatency);
  std::printf("figure http_post_latency_ratio %.2f x\n", latency / peerLatency);
  std::printf("figure http_post_throughput_16_in_flight %.0f requests/s\n",
              kParallel / seconds(parallel));
  return 0;
}
