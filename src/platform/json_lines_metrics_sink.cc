#include "src/platform/json_lines_metrics_sink.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>

#include "omrakit/platform/http_client.h"
#include "src/platform/metric_format.h"

namespace omra {

JsonLinesMetricsSink::JsonLinesMetricsSink(std::string path, std::shared_ptr<Logger> logger)
    : logger_(std::move(logger)) {
  file_ = std::fopen(path.c_str(), "a");
  ownsFile_ = file_ != nullptr;
  if (!file_ && logger_) {
    logger_->print("Metrics file " + path + " cannot be opened: " + std::strerror(errno) +
                   "; metrics are dropped");
  }
}

JsonLinesMetricsSink::JsonLinesMetricsSink(std::shared_ptr<Logger> logger)
    : file_(stdout), logger_(std::move(logger)) {}

JsonLinesMetricsSink::~JsonLinesMetricsSink() {
  if (ownsFile_) std::fclose(file_);
}

std::string JsonLinesMetricsSink::line(const std::string& nameSpace, const MetricDatum& datum) {
  Json j;
  j["namespace"] = nameSpace;
  j["metricName"] = datum.metricName;
  // JSON has no NaN or infinity; such a value is written as null.
  j["value"] = std::isfinite(datum.value) ? Json(datum.value) : Json(nullptr);
  j["unit"] = datum.unit;
  double when = datum.timestamp;
  if (when <= 0) {
    when =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  }
  j["timestamp"] = iso8601Millis(when);
  Json dims = Json::object();
  for (const auto& [name, value] : datum.dimensions) dims[name] = value;
  j["dimensions"] = std::move(dims);
  // Invalid UTF-8 in a name is replaced rather than thrown over.
  return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void JsonLinesMetricsSink::putMetricData(const std::string& nameSpace,
                                         std::vector<MetricDatum> data) {
  std::string text;
  for (const auto& d : data) text += line(nameSpace, d) + "\n";
  std::lock_guard<std::mutex> lock(mutex_);
  if (!file_ || text.empty()) return;
  std::fwrite(text.data(), 1, text.size(), file_);
  std::fflush(file_);
}

}  // namespace omra
