// Every request a session sends carries its account: the developer-key digest, in one header, so
// that the back end can keep each account's maps, sessions and records to itself.
#pragma once

#include <memory>
#include <string>

#include "omrakit/platform/http_client.h"

namespace omra {

// The request header that names the account (32 lower-case hexadecimal digits).
inline constexpr const char* kAccountHeader = "X-Omra-Account";

// Adds the account header to each request and hands it to the wrapped client. Shares the wrapped
// client; thread-safe as that client is.
class AccountHttpClient : public HttpClient {
 public:
  AccountHttpClient(std::shared_ptr<HttpClient> inner, std::string accountDigest);
  void send(HttpRequest request, Completion completion) override;

 private:
  std::shared_ptr<HttpClient> inner_;
  std::string accountDigest_;
};

}  // namespace omra
