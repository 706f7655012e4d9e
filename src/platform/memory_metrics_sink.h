// A MetricsSink that keeps every datum in memory, for tests.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "omrakit/platform/metrics_sink.h"

namespace omra {

// Shared by the code under test and the test; every method is thread-safe.
class MemoryMetricsSink : public MetricsSink {
 public:
  struct Request {
    std::string nameSpace;
    std::vector<MetricDatum> data;
  };

  void putMetricData(const std::string& nameSpace, std::vector<MetricDatum> data) override;

  // Every call, in arrival order (an empty request is kept too).
  std::vector<Request> requests() const;
  // All data of all calls, flattened.
  std::vector<MetricDatum> data() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Request> requests_;
};

}  // namespace omra
