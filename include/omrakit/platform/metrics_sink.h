// Where the kit's metrics go (CloudWatch, a JSON-lines file, memory). Thread-safe; delivery is
// fire-and-forget and a failure is logged by the sink, never reported to the caller.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace omra {

struct MetricDatum {
  std::string metricName;
  std::vector<std::pair<std::string, std::string>> dimensions;  // name, value
  double value = 0;
  std::string unit;      // CloudWatch unit name, e.g. "Seconds", "Count"
  double timestamp = 0;  // seconds since 1970-01-01; 0: when the sink sends it
};

class MetricsSink {
 public:
  virtual ~MetricsSink() = default;
  virtual void putMetricData(const std::string& nameSpace, std::vector<MetricDatum> data) = 0;
};

}  // namespace omra
