// Test helpers for the cloud client: a loopback HTTP server that records what it receives and
// answers as told, a device with fixed facts, and an HttpClient wrapper that reports when a
// request's completion has run.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "omrakit/platform/device_info.h"
#include "omrakit/platform/http_client.h"

namespace omra::testing {

struct CapturedRequest {
  std::string method;
  std::string path;
  std::string body;
  std::string contentType;
};

// Listens on 127.0.0.1 at an ephemeral port from construction to destruction. Thread-safe.
class CapturingServer {
 public:
  CapturingServer();
  ~CapturingServer();

  int port() const { return port_; }
  std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // The answer to every later request.
  void setReply(int status, std::string body, std::string contentType = "application/json");
  std::vector<CapturedRequest> requests() const;

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<CapturedRequest> requests_;
  int status_ = 200;
  std::string body_ = "{}";
  std::string contentType_ = "application/json";
};

// An origin where nothing listens: a port bound once and released.
std::string refusedOrigin();

class FixedDevice : public DeviceInfo {
 public:
  FixedDevice(std::string machine, std::optional<std::string> vendorId)
      : machine_(std::move(machine)), vendorId_(std::move(vendorId)) {}
  std::optional<std::string> bundleIdentifier() const override { return "com.example.host"; }
  std::string systemVersion() const override { return "12.4"; }
  std::string machineName() const override { return machine_; }
  std::optional<std::string> identifierForVendor() const override { return vendorId_; }
  std::optional<std::vector<std::string>> supportedInterfaceOrientations() const override {
    return std::nullopt;
  }

 private:
  std::string machine_;
  std::optional<std::string> vendorId_;
};

// Forwards to a real client and counts completions after the caller's completion returned, so a
// test can tell "no callback" from "not yet". Thread-safe.
class CompletionCountingClient : public HttpClient {
 public:
  explicit CompletionCountingClient(std::shared_ptr<HttpClient> inner) : inner_(std::move(inner)) {}
  void send(HttpRequest request, Completion completion) override;
  // Waits until count completions have run; false on time-out.
  bool waitForCompletions(int count, std::chrono::seconds timeout = std::chrono::seconds(10));

 private:
  std::shared_ptr<HttpClient> inner_;
  std::mutex mutex_;
  std::condition_variable cv_;
  int completed_ = 0;
};

}  // namespace omra::testing
