#include "src/cloud/metrics.h"

#include <chrono>

namespace omra {

std::optional<MetricDatum> buildCWMetricDatum(const std::string& metricName,
                                              const std::optional<std::string>& developerKeyHash,
                                              std::optional<double> seconds) {
  MetricDatum datum;
  datum.metricName = metricName;
  if (seconds) {
    datum.value = *seconds;
    datum.unit = "Seconds";
  } else {
    datum.value = 1;
    datum.unit = "Count";
  }
  if (developerKeyHash) datum.dimensions.emplace_back(kDevKeyDimension, *developerKeyHash);
  datum.timestamp =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  return datum;
}

}  // namespace omra
