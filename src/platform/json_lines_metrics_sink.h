// The embedded default MetricsSink: one JSON object per datum per line, appended to a file or
// written to stdout.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "omrakit/platform/logger.h"
#include "omrakit/platform/metrics_sink.h"

namespace omra {

// Owns its file; putMetricData() is thread-safe and each line is written whole.
//
// A line: {"namespace":"OmraKit","metricName":"OmraKit.AssetSaved","value":1,"unit":"Count",
//          "timestamp":"2026-11-22T00:08:27.123Z","dimensions":{"devKey":"..."}}
class JsonLinesMetricsSink : public MetricsSink {
 public:
  // Appends to path (created when missing). When it cannot be opened, the failure is logged once
  // and metrics are dropped.
  JsonLinesMetricsSink(std::string path, std::shared_ptr<Logger> logger);
  // Writes to stdout.
  explicit JsonLinesMetricsSink(std::shared_ptr<Logger> logger);
  ~JsonLinesMetricsSink() override;
  JsonLinesMetricsSink(const JsonLinesMetricsSink&) = delete;
  JsonLinesMetricsSink& operator=(const JsonLinesMetricsSink&) = delete;

  void putMetricData(const std::string& nameSpace, std::vector<MetricDatum> data) override;

  // The line written for one datum (without the newline).
  static std::string line(const std::string& nameSpace, const MetricDatum& datum);

 private:
  std::mutex mutex_;
  std::FILE* file_ = nullptr;
  bool ownsFile_ = false;
  std::shared_ptr<Logger> logger_;
};

}  // namespace omra
