// Env: every platform service the kit uses, injected as one value (as a host or a test builds it).
//
// Env is a cheap value of shared pointers; the kit keeps a copy for as long as a session lives. Any
// member may be null where documented; the kit then does without that service.
#pragma once

#include <chrono>
#include <memory>

#include "omrakit/platform/device_info.h"
#include "omrakit/platform/dispatch.h"
#include "omrakit/platform/http_client.h"
#include "omrakit/platform/location_source.h"
#include "omrakit/platform/logger.h"
#include "omrakit/platform/metrics_sink.h"
#include "omrakit/platform/record_store.h"

namespace omra {

class DetectorModel;  // omrakit/platform/detector_model.h

struct Env {
  std::shared_ptr<Dispatcher> dispatcher;
  std::shared_ptr<HttpClient> http;
  std::shared_ptr<Logger> logger;
  std::shared_ptr<DeviceInfo> device;
  std::shared_ptr<MetricsSink> metrics;  // null: metrics are dropped
  std::shared_ptr<RecordStore> records;
  std::shared_ptr<LocationSource> location;  // null: no location
  std::shared_ptr<DetectorModel> detector;   // null: no scene understanding
  // How long a session's dispose waits for its records to leave the device (RecordStore::flush).
  std::chrono::milliseconds recordFlushTimeout{2000};
};

}  // namespace omra
