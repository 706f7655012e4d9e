// A MetricsSink that sends Amazon CloudWatch PutMetricData requests (query protocol, form body,
// SigV4-signed by libcurl).
#pragma once

#include <memory>
#include <string>

#include "omrakit/config.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/metrics_sink.h"
#include "src/platform/curl_http_client.h"

namespace omra {

struct CloudWatchSettings {
  std::string region = "us-east-1";
  std::string accessKeyId;
  std::string secretAccessKey;
  std::string sessionToken;  // sent as X-Amz-Security-Token when set
  // Empty: https://monitoring.<region>.amazonaws.com/
  std::string endpoint;

  // From the AWS settings and a "cloudwatch:URL" metrics sink choice.
  static CloudWatchSettings fromConfig(const Config& config);
};

// Owns its own HTTP worker; putMetricData() is thread-safe and returns at once. Failures are
// printed through the logger. The dispatcher must outlive the sink.
class CloudWatchMetricsSink : public MetricsSink {
 public:
  CloudWatchMetricsSink(Dispatcher& dispatcher, std::shared_ptr<Logger> logger,
                        CloudWatchSettings settings, CurlHttpOptions http = {});

  void putMetricData(const std::string& nameSpace, std::vector<MetricDatum> data) override;

  // The request's form body: Action, Version, Namespace, then each datum's members.
  static std::string requestBody(const std::string& nameSpace,
                                 const std::vector<MetricDatum>& data);
  const std::string& endpoint() const { return endpoint_; }

 private:
  std::shared_ptr<Logger> logger_;
  CloudWatchSettings settings_;
  std::string endpoint_;
  CurlHttpClient http_;
};

}  // namespace omra
