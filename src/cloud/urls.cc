#include "src/cloud/urls.h"

#include <memory>
#include <mutex>
#include <string_view>

namespace omra {
namespace {

// A configured host may end in "/"; the stage segment brings its own.
std::string join(std::string_view host, std::string_view stage, std::string_view path) {
  while (!host.empty() && host.back() == '/') host.remove_suffix(1);
  std::string url;
  url.reserve(host.size() + stage.size() + path.size());
  url.append(host).append(stage).append(path);
  return url;
}

constexpr std::string_view kBeta = "/beta";
constexpr std::string_view kProd = "/prod";

std::mutex& sharedMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<const Urls>& sharedUrls() {
  static std::shared_ptr<const Urls> urls;
  return urls;
}

}  // namespace

Urls::Urls(const EndpointHosts& h)
    : BETA_MAPS_URL_BASE(join(h.mapsBeta, kBeta, "/maps")),
      PROD_MAPS_URL_BASE(join(h.mapsProd, kProd, "/maps")),
      BETA_GET_TRANSFORMS(join(h.mapsBeta, kBeta, "/maps/get_best_transform")),
      PROD_GET_TRANSFORMS(join(h.mapsProd, kProd, "/maps/get_best_transform")),
      BETA_TRIGGER_IMAGE_MATCH_COMPUTE(join(h.imageMatcherBeta, kBeta, "/full-image-matcher")),
      PROD_TRIGGER_IMAGE_MATCH_COMPUTE(join(h.imageMatcherProd, kProd, "/full-image-matcher")),
      BETA_TRIGGER_TRANSFORM_COMPUTE(
          join(h.linearOptimizerBeta, kBeta, "/linear-optimizer/initial_transforms")),
      PROD_TRIGGER_TRANSFORM_COMPUTE(
          join(h.linearOptimizerProd, kProd, "/linear-optimizer/initial_transforms")) {}

void Urls::configure(const EndpointHosts& hosts) {
  auto urls = std::make_shared<const Urls>(hosts);
  std::lock_guard<std::mutex> lock(sharedMutex());
  sharedUrls() = std::move(urls);
}

Urls Urls::shared() {
  std::lock_guard<std::mutex> lock(sharedMutex());
  if (!sharedUrls()) sharedUrls() = std::make_shared<const Urls>(EndpointHosts{});
  return *sharedUrls();
}

}  // namespace omra
