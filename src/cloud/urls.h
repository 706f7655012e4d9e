// Urls: the back end's endpoint addresses, built from the six configured gateway hosts. Each
// address is host + stage ("/beta" or "/prod") + a fixed path. Callers choose the BETA_ or PROD_
// address from USE_BETA_ALGO themselves.
//
// Immutable value; safe to share between threads. The process-wide instance (shared()) is set
// once with configure() at start-up; configure() and shared() are thread-safe.
#pragma once

#include <string>

#include "omrakit/config.h"

namespace omra {

class Urls {
 public:
  explicit Urls(const EndpointHosts& hosts);

  // Replaces the process-wide endpoints for every later shared() call. Thread-safe.
  static void configure(const EndpointHosts& hosts);
  // The process-wide endpoints: the configured ones, or those of the default hosts. Thread-safe.
  static Urls shared();

  const std::string BETA_MAPS_URL_BASE;
  const std::string PROD_MAPS_URL_BASE;
  const std::string BETA_GET_TRANSFORMS;
  const std::string PROD_GET_TRANSFORMS;
  const std::string BETA_TRIGGER_IMAGE_MATCH_COMPUTE;
  const std::string PROD_TRIGGER_IMAGE_MATCH_COMPUTE;
  const std::string BETA_TRIGGER_TRANSFORM_COMPUTE;
  const std::string PROD_TRIGGER_TRANSFORM_COMPUTE;

  // The stage a caller selects with USE_BETA_ALGO.
  const std::string& mapsUrlBase(bool useBeta) const {
    return useBeta ? BETA_MAPS_URL_BASE : PROD_MAPS_URL_BASE;
  }
  const std::string& getTransforms(bool useBeta) const {
    return useBeta ? BETA_GET_TRANSFORMS : PROD_GET_TRANSFORMS;
  }
  const std::string& triggerImageMatchCompute(bool useBeta) const {
    return useBeta ? BETA_TRIGGER_IMAGE_MATCH_COMPUTE : PROD_TRIGGER_IMAGE_MATCH_COMPUTE;
  }
  const std::string& triggerTransformCompute(bool useBeta) const {
    return useBeta ? BETA_TRIGGER_TRANSFORM_COMPUTE : PROD_TRIGGER_TRANSFORM_COMPUTE;
  }
};

}  // namespace omra
