#include "tests/platform/store/dynalite_testutil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

extern char** environ;

namespace omra::testing {

std::string peersDir() {
  if (const char* dir = std::getenv("OMRA_PEERS_DIR"); dir != nullptr && *dir != 0) return dir;
  return std::string(OMRA_SOURCE_DIR) + "/.cache/peers";
}

int freeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  close(fd);
  return port;
}

namespace {

bool canConnect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

}  // namespace

std::unique_ptr<DynaliteServer> DynaliteServer::start(std::string* why) {
  const std::string cli = peersDir() + "/node_modules/dynalite/cli.js";
  if (!std::filesystem::exists(cli)) {
    *why = "dynalite is not installed (run scripts/npm-peers.sh): " + cli;
    return nullptr;
  }
  for (int tries = 0; tries < 3; ++tries) {
    const int port = freeLoopbackPort();
    const std::string portText = std::to_string(port);
    std::vector<std::string> args = {"node", cli, "--host", "127.0.0.1", "--port", portText};
    for (const char* flag : {"--createTableMs", "--deleteTableMs", "--updateTableMs"}) {
      args.insert(args.end(), {flag, "0"});
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, "node", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
      *why = "cannot run node";
      return nullptr;
    }
    auto server =
        std::unique_ptr<DynaliteServer>(new DynaliteServer(pid, "http://127.0.0.1:" + portText));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (std::chrono::steady_clock::now() < deadline) {
      if (canConnect(port)) return server;
      int status;
      if (waitpid(pid, &status, WNOHANG) == pid) {  // exited: port taken meanwhile?
        server->pid_ = 0;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  *why = "dynalite did not start";
  return nullptr;
}

void DynaliteServer::stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status;
  waitpid(pid_, &status, 0);
  pid_ = 0;
}

DynaliteServer::~DynaliteServer() { stop(); }

DynaliteServer* sharedDynalite(std::string* why) {
  static std::string failure;
  static std::unique_ptr<DynaliteServer> server = DynaliteServer::start(&failure);
  if (!server) *why = failure;
  return server.get();
}

}  // namespace omra::testing
