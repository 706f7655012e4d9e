#include "src/cloud/account_http_client.h"

namespace omra {

AccountHttpClient::AccountHttpClient(std::shared_ptr<HttpClient> inner, std::string accountDigest)
    : inner_(std::move(inner)), accountDigest_(std::move(accountDigest)) {}

void AccountHttpClient::send(HttpRequest request, Completion completion) {
  request.headers[kAccountHeader] = accountDigest_;
  inner_->send(std::move(request), std::move(completion));
}

}  // namespace omra
