#include "src/platform/metrics_sink_factory.h"

#include "src/platform/cloudwatch_metrics_sink.h"
#include "src/platform/json_lines_metrics_sink.h"

namespace omra {

std::shared_ptr<MetricsSink> makeMetricsSink(const Config& config, Dispatcher& dispatcher,
                                             std::shared_ptr<Logger> logger) {
  const std::string& choice = config.metricsSink;
  if (choice == "none") return nullptr;
  if (choice == "stdout") return std::make_shared<JsonLinesMetricsSink>(std::move(logger));
  if (choice.rfind("file:", 0) == 0) {
    return std::make_shared<JsonLinesMetricsSink>(choice.substr(5), std::move(logger));
  }
  if (choice == "cloudwatch" || choice.rfind("cloudwatch:", 0) == 0) {
    CurlHttpOptions http;
    http.idleTimeoutSeconds = config.httpIdleTimeoutSeconds;
    return std::make_shared<CloudWatchMetricsSink>(dispatcher, std::move(logger),
                                                   CloudWatchSettings::fromConfig(config), http);
  }
  if (logger) logger->print("Unknown metrics sink \"" + choice + "\"; metrics are dropped");
  return nullptr;
}

}  // namespace omra
