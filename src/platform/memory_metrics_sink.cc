#include "src/platform/memory_metrics_sink.h"

namespace omra {

void MemoryMetricsSink::putMetricData(const std::string& nameSpace, std::vector<MetricDatum> data) {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back({nameSpace, std::move(data)});
}

std::vector<MemoryMetricsSink::Request> MemoryMetricsSink::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<MetricDatum> MemoryMetricsSink::data() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<MetricDatum> out;
  for (const auto& r : requests_) out.insert(out.end(), r.data.begin(), r.data.end());
  return out;
}

void MemoryMetricsSink::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
}

}  // namespace omra
