// Metric data points for the kit's usage and timing metrics, and their names.
//
// Plain functions; thread-safe.
#pragma once

#include <optional>
#include <string>

#include "omrakit/platform/metrics_sink.h"

namespace omra {

// The namespace of every metric the kit posts.
inline constexpr char kMetricsNamespace[] = "OmraKit";
// The dimension that tags a data point with the account.
inline constexpr char kDevKeyDimension[] = "devKey";

inline constexpr char kMetricRegisterObjectDetectionCallback[] =
    "OmraKit.RegisterObjectDetectionCallback";
inline constexpr char kMetricTriggerTransformComputeTime[] = "OmraKit.TriggerTransformComputeTime";
inline constexpr char kMetricRelocalizationTimeFullImageMatcher[] =
    "OmraKit.RelocalizationTime.FullImageMatcher";
inline constexpr char kMetricRelocalizationTimeSU[] = "OmraKit.RelocalizationTime.SU";
inline constexpr char kMetricAssetSaved[] = "OmraKit.AssetSaved";

// One data point: the duration in Seconds when given, else a Count of 1; a "devKey" dimension
// when developerKeyHash is given. Stamped with the current time.
std::optional<MetricDatum> buildCWMetricDatum(const std::string& metricName,
                                              const std::optional<std::string>& developerKeyHash,
                                              std::optional<double> seconds);

}  // namespace omra
