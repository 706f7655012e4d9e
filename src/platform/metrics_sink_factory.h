// Builds the MetricsSink that Config.metricsSink names.
#pragma once

#include <memory>
#include <string>

#include "omrakit/config.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/metrics_sink.h"

namespace omra {

// "file:PATH" and "stdout": JSON lines; "cloudwatch[:URL]": CloudWatch; "none": null (metrics
// dropped). An unknown choice logs an error and gives null. The dispatcher must outlive the sink.
std::shared_ptr<MetricsSink> makeMetricsSink(const Config& config, Dispatcher& dispatcher,
                                             std::shared_ptr<Logger> logger);

}  // namespace omra
