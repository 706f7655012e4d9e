#include "src/platform/cloudwatch_metrics_sink.h"

#include "src/platform/metric_format.h"

namespace omra {

CloudWatchSettings CloudWatchSettings::fromConfig(const Config& config) {
  CloudWatchSettings s;
  s.region = config.aws.region;
  s.accessKeyId = config.aws.accessKeyId;
  s.secretAccessKey = config.aws.secretAccessKey;
  s.sessionToken = config.aws.sessionToken;
  const std::string prefix = "cloudwatch:";
  if (config.metricsSink.rfind(prefix, 0) == 0)
    s.endpoint = config.metricsSink.substr(prefix.size());
  return s;
}

CloudWatchMetricsSink::CloudWatchMetricsSink(Dispatcher& dispatcher, std::shared_ptr<Logger> logger,
                                             CloudWatchSettings settings, CurlHttpOptions http)
    : logger_(std::move(logger)),
      settings_(std::move(settings)),
      endpoint_(settings_.endpoint.empty()
                    ? "https://monitoring." + settings_.region + ".amazonaws.com/"
                    : settings_.endpoint),
      http_(dispatcher, http) {
  if (endpoint_.find("://") != std::string::npos &&
      endpoint_.find('/', endpoint_.find("://") + 3) == std::string::npos) {
    endpoint_ += '/';  // the signed canonical path is "/"
  }
}

std::string CloudWatchMetricsSink::requestBody(const std::string& nameSpace,
                                               const std::vector<MetricDatum>& data) {
  std::string body = "Action=PutMetricData&Version=2010-08-01&Namespace=" + formEncode(nameSpace);
  for (size_t i = 0; i < data.size(); ++i) {
    const MetricDatum& d = data[i];
    const std::string m = "&MetricData.member." + std::to_string(i + 1) + ".";
    body += m + "MetricName=" + formEncode(d.metricName);
    body += m + "Value=" + formEncode(shortestDouble(d.value));
    if (!d.unit.empty()) body += m + "Unit=" + formEncode(d.unit);
    // Without one, CloudWatch stamps the datum on arrival.
    if (d.timestamp > 0) body += m + "Timestamp=" + formEncode(iso8601Millis(d.timestamp));
    for (size_t k = 0; k < d.dimensions.size(); ++k) {
      const std::string dim = m + "Dimensions.member." + std::to_string(k + 1) + ".";
      body += dim + "Name=" + formEncode(d.dimensions[k].first);
      body += dim + "Value=" + formEncode(d.dimensions[k].second);
    }
  }
  return body;
}

void CloudWatchMetricsSink::putMetricData(const std::string& nameSpace,
                                          std::vector<MetricDatum> data) {
  if (settings_.accessKeyId.empty() || settings_.secretAccessKey.empty()) {
    if (logger_) logger_->print("CloudWatch PutMetricData skipped: no AWS credentials configured");
    return;
  }
  HttpRequest request;
  request.method = HttpMethod::kPost;
  request.url = endpoint_;
  // The parameters travel in the body: curl 7.88 signs a query string in the URL wrongly.
  request.body = requestBody(nameSpace, data);
  request.headers["Content-Type"] = "application/x-www-form-urlencoded; charset=utf-8";
  if (!settings_.sessionToken.empty()) {
    request.headers["X-Amz-Security-Token"] = settings_.sessionToken;
  }
  CurlRequestExtras extras;
  extras.awsSigV4 = "aws:amz:" + settings_.region + ":monitoring";
  extras.userPwd = settings_.accessKeyId + ":" + settings_.secretAccessKey;
  std::shared_ptr<Logger> logger = logger_;
  http_.sendWithExtras(std::move(request), std::move(extras), [logger](HttpResponse r) {
    if (r.status == 200 || !logger) return;
    std::string why = r.status == 0
                          ? r.transportError
                          : "HTTP " + std::to_string(r.status) + ": " + r.body.substr(0, 300);
    logger->print("CloudWatch PutMetricData failed: " + why);
  });
}

}  // namespace omra
