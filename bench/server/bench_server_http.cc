// omra-server's HTTP front on loopback over the SQLite store, driven by wrk: get_best_transform at
// 16 and 256 connections, the same at 16 with 1,000 slow connections open, create_map at 16, and
// the resident memory the server grows while hostile bodies arrive (gzip bombs, endless chunked
// bodies, deeply nested JSON).
#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/server/wrk_runner.h"
#include "server/account.h"
#include "server/ids.h"
#include "server/request.h"
#include "server/server.h"
#include "server/server_process.h"
#include "src/cloud/transform_result_model.h"
#include "src/platform/store/record_store_factory.h"

namespace omra::server {
namespace {

const std::string kDigest = "0123456789abcdef0123456789abcdef";
const std::string kAccountHeader = "X-Omra-Account: " + kDigest;

int connectLoopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
  if (fd >= 0) ::close(fd);
  return -1;
}

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// Reads until the server closes (or a second passes without data).
void readToEnd(int fd) {
  timeval tv{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char buf[4096];
  while (::recv(fd, buf, sizeof buf, 0) > 0) {
  }
}

// n connections that each send a request header one byte a second (slowloris).
class SlowClients {
 public:
  SlowClients(int port, int n) {
    for (int i = 0; i < n; ++i) {
      const int fd = connectLoopback(port);
      if (fd < 0) break;
      sendAll(fd, "POST /prod/maps/create_map HTTP/1.1\r\nHo");
      fds_.push_back(fd);
    }
    thread_ = std::thread([this] {
      while (!stop_) {
        for (int fd : fds_) sendAll(fd, "s");
        for (int i = 0; i < 10 && !stop_; ++i)
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    });
  }
  ~SlowClients() {
    stop_ = true;
    thread_.join();
    for (int fd : fds_) ::close(fd);
  }
  size_t opened() const { return fds_.size(); }

 private:
  std::vector<int> fds_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

long residentKb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

std::string gzipZeros(size_t n) {
  z_stream z{};
  deflateInit2(&z, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
  std::string zeros(1 << 20, '\0'), out;
  char buf[1 << 16];
  for (size_t done = 0; done < n; done += zeros.size()) {
    z.next_in = reinterpret_cast<Bytef*>(zeros.data());
    z.avail_in = static_cast<uInt>(zeros.size());
    const int flush = done + zeros.size() >= n ? Z_FINISH : Z_NO_FLUSH;
    do {
      z.next_out = reinterpret_cast<Bytef*>(buf);
      z.avail_out = sizeof buf;
      deflate(&z, flush);
      out.append(buf, sizeof buf - z.avail_out);
    } while (z.avail_out == 0);
  }
  deflateEnd(&z);
  return out;
}

// Peak resident memory of this process, in kB, while `threads` clients send hostile bodies for
// `seconds`: only the kind `only` (0 gzip bombs, 1 nested JSON, 2 endless chunked bodies), or
// all three in turn (-1).
long hostilePeakKb(int port, int threads, int seconds, int only) {
  const std::string head = "POST /prod/maps/create_map HTTP/1.1\r\nHost: b\r\n" + kAccountHeader +
                           "\r\nContent-Type: application/json\r\n";
  const std::string bomb = gzipZeros(size_t{512} << 20);  // ~0.5 MB that inflates to 512 MiB
  const std::string bombRequest =
      head + "Content-Encoding: gzip\r\nContent-Length: " + std::to_string(bomb.size()) +
      "\r\n\r\n" + bomb;
  const std::string deep(1 << 20, '[');
  const std::string deepRequest =
      head + "Content-Length: " + std::to_string(deep.size()) + "\r\n\r\n" + deep;
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'c') + "\r\n";
  const std::string chunkedHead = head + "Transfer-Encoding: chunked\r\n\r\n";

  std::atomic<long> peak{residentKb()};
  std::atomic<bool> stop{false};
  std::thread sampler([&] {
    while (!stop) {
      const long now = residentKb();
      if (now > peak) peak = now;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  std::vector<std::thread> clients;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  for (int t = 0; t < threads; ++t) {
    clients.emplace_back([&, t] {
      for (int i = t; std::chrono::steady_clock::now() < end; ++i) {
        const int fd = connectLoopback(port);
        if (fd < 0) continue;
        switch (only >= 0 ? only : i % 3) {
          case 0:
            sendAll(fd, bombRequest);
            break;
          case 1:
            sendAll(fd, deepRequest);
            break;
          default:  // chunks until the server refuses the body
            if (sendAll(fd, chunkedHead)) {
              for (int k = 0; k < 64 && sendAll(fd, chunk); ++k) {
              }
            }
        }
        readToEnd(fd);
        ::close(fd);
      }
    });
  }
  for (std::thread& c : clients) c.join();
  stop = true;
  sampler.join();
  return peak;
}

int run() {
  raiseOpenFileLimit();
  tuneMallocForServer();
  const auto dir =
      std::filesystem::temp_directory_path() / ("omra-bench-server-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::string error;
  auto store = makeRecordStore("sqlite:" + (dir / "server.db").string(), {}, nullptr, &error);
  if (!store) {
    std::fprintf(stderr, "cannot open the store: %s\n", error.c_str());
    return 1;
  }
  ServerOptions o;
  o.store = store;
  o.log = [](std::string_view) {};      // the request log line is still formatted for every request
  o.quotas = QuotaOptions{0, 0, 0, 0};  // one account makes every request here
  if (const char* threads = std::getenv("OMRA_BENCH_HTTP_THREADS"))
    o.httpThreads = std::atoi(threads);
  Server server(o);
  if (!server.start(&error)) return 1;

  // A localization session of the account with a handful of results, as a running session sees it.
  const std::string opening =
      R"({"app_id":"com.example.bench","user_id":"u","map_id":"room","developer_key":")" + kDigest +
      R"(","pod_version":"v0.3.6","data_version":"0.3","device_version":"12",)"
      R"("device_model":"Simulator","long":2.35,"lat":48.85,"alt":35,"horAccuracy":5,"verAccuracy":3})";
  httplib::Client setup("127.0.0.1", server.port());
  const httplib::Headers account{{"X-Omra-Account", kDigest}};
  setup.Post("/prod/maps/create_map", account, opening, "application/json");
  auto opened =
      setup.Post("/prod/maps/create_localization_session", account, opening, "application/json");
  Json answer = opened ? Json::parse(opened->body, nullptr, false) : Json();
  if (!answer.is_object() || !answer.contains("session_uuid")) {
    std::fprintf(stderr, "cannot open a localization session: %s\n",
                 opened ? opened->body.c_str() : "no answer");
    return 1;
  }
  const std::string session = answer["session_uuid"];
  for (int i = 0; i < 6; ++i) {
    TransformResultModel r;
    r.sessionId = session;
    r.timestamp = uniqueSeconds();
    r.matchValue = matchValueText(0.5 + 0.05 * i);
    r.transform = "0.5,0,1.25,0.75";
    r.localizer = i % 2 ? kSuLocalizer : kImageMatcher;
    r.suppress = i == 5;
    store->put(TransformResultModel::kTableName, r.toItem());
  }
  const std::string base = server.baseUrl() + "/prod";
  const std::string best =
      base + "/maps/get_best_transform?session_id=" + session + "&localizer=su_localizer";
  auto c16 = runWrk(best, 16, kAccountHeader, "");
  auto c256 = runWrk(best, 256, kAccountHeader, "");
  std::optional<WrkResult> slowloris;
  size_t slowOpened = 0;
  {
    SlowClients slow(server.port(), 1000);
    slowOpened = slow.opened();
    slowloris = runWrk(best, 16, kAccountHeader, "");
  }
  const std::string script = (dir / "create_map.lua").string();
  std::ofstream(script) << "wrk.method = \"POST\"\n"
                           "wrk.headers[\"Content-Type\"] = \"application/json\"\n"
                           "wrk.body = '"
                        << opening << "'\n";
  auto create = runWrk(base + "/maps/create_map", 16, kAccountHeader, script);
  // Growth over the idle server, each kind alone and then all together.
  const long idle = residentKb();
  double hostile = 0;
  const char* kinds[] = {"gzip bombs", "nested JSON", "chunked floods", "all kinds"};
  for (int k : {0, 2, 1, -1}) {
    const double mb = static_cast<double>(hostilePeakKb(server.port(), 8, 3, k) - idle) / 1024;
    std::printf("# hostile %s: %.1f MB over idle\n", kinds[k < 0 ? 3 : k], mb);
    hostile = std::max(hostile, mb);
  }
  server.stop();
  store.reset();
  std::filesystem::remove_all(dir);
  if (!c16 || !c256 || !slowloris || !create) {
    std::fprintf(stderr, "wrk did not run (is it installed?)\n");
    return 1;
  }
  std::printf("# c256: %ld socket errors, %ld non-2xx answers; %zu slow connections held\n",
              c256->socketErrors, c256->non2xx, slowOpened);
  std::printf("figure server_best_transform_p99_ms_c16 %.3f ms\n", c16->p99Ms);
  std::printf("figure server_best_transform_rps_c16 %.0f req/s\n", c16->rps);
  std::printf("figure server_best_transform_p99_ms_c256 %.3f ms\n", c256->p99Ms);
  std::printf("figure server_best_transform_unanswered_c256 %ld requests\n",
              c256->socketErrors + c256->non2xx);
  std::printf("figure server_slowloris_p99_delta_ms %.3f ms\n", slowloris->p99Ms - c16->p99Ms);
  std::printf("figure server_hostile_rss_growth_mb %.1f MB\n", hostile);
  std::printf("figure create_map_rps %.0f requests/s\n", create->rps);
  std::printf("figure create_map_p99 %.3f ms\n", create->p99Ms);
  return 0;
}

}  // namespace
}  // namespace omra::server

int main() { return omra::server::run(); }
