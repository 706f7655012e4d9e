#include "src/cloud/urls.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace omra {
namespace {

TEST(Urls, EachConstantFromItsOwnHostStageAndPath) {
  EndpointHosts hosts;
  hosts.mapsBeta = "https://maps-beta.example.com";
  hosts.mapsProd = "https://maps.example.com/";  // a trailing slash is not doubled
  hosts.imageMatcherBeta = "https://im-beta.example.com";
  hosts.imageMatcherProd = "https://im.example.com";
  hosts.linearOptimizerBeta = "http://127.0.0.1:9001";
  hosts.linearOptimizerProd = "http://127.0.0.1:9002";
  const Urls urls(hosts);
  EXPECT_EQ(urls.BETA_MAPS_URL_BASE, "https://maps-beta.example.com/beta/maps");
  EXPECT_EQ(urls.PROD_MAPS_URL_BASE, "https://maps.example.com/prod/maps");
  EXPECT_EQ(urls.BETA_GET_TRANSFORMS, "https://maps-beta.example.com/beta/maps/get_best_transform");
  EXPECT_EQ(urls.PROD_GET_TRANSFORMS, "https://maps.example.com/prod/maps/get_best_transform");
  EXPECT_EQ(urls.BETA_TRIGGER_IMAGE_MATCH_COMPUTE,
            "https://im-beta.example.com/beta/full-image-matcher");
  EXPECT_EQ(urls.PROD_TRIGGER_IMAGE_MATCH_COMPUTE,
            "https://im.example.com/prod/full-image-matcher");
  EXPECT_EQ(urls.BETA_TRIGGER_TRANSFORM_COMPUTE,
            "http://127.0.0.1:9001/beta/linear-optimizer/initial_transforms");
  EXPECT_EQ(urls.PROD_TRIGGER_TRANSFORM_COMPUTE,
            "http://127.0.0.1:9002/prod/linear-optimizer/initial_transforms");

  EXPECT_EQ(&urls.mapsUrlBase(true), &urls.BETA_MAPS_URL_BASE);
  EXPECT_EQ(&urls.mapsUrlBase(false), &urls.PROD_MAPS_URL_BASE);
  EXPECT_EQ(&urls.getTransforms(true), &urls.BETA_GET_TRANSFORMS);
  EXPECT_EQ(&urls.triggerImageMatchCompute(false), &urls.PROD_TRIGGER_IMAGE_MATCH_COMPUTE);
  EXPECT_EQ(&urls.triggerTransformCompute(true), &urls.BETA_TRIGGER_TRANSFORM_COMPUTE);
}

TEST(Urls, SharedFollowsConfigureAndIsSafeToReadConcurrently) {
  EndpointHosts hosts;
  hosts.mapsProd = "http://10.0.0.1:1";
  Urls::configure(hosts);
  EXPECT_EQ(Urls::shared().PROD_MAPS_URL_BASE, "http://10.0.0.1:1/prod/maps");

  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([] {
      for (int j = 0; j < 200; ++j) {
        const Urls u = Urls::shared();
        ASSERT_EQ(u.PROD_MAPS_URL_BASE.substr(u.PROD_MAPS_URL_BASE.size() - 10), "/prod/maps");
      }
    });
  }
  for (int j = 0; j < 50; ++j) {
    hosts.mapsProd = "http://10.0.0." + std::to_string(j) + ":1";
    Urls::configure(hosts);
  }
  for (auto& t : readers) t.join();
  Urls::configure(EndpointHosts{});
  EXPECT_EQ(Urls::shared().PROD_MAPS_URL_BASE, "http://127.0.0.1:8080/prod/maps");
}

}  // namespace
}  // namespace omra
