#include "src/platform/env/default_env.h"

#include <cmath>
#include <memory>
#include <utility>

#include "omrakit/platform/detector_model.h"
#include "src/cloud/account_http_client.h"
#include "src/cloud/record_tables.h"
#include "src/cloud/urls.h"
#include "src/platform/asio_dispatcher.h"
#include "src/platform/console_logger.h"
#include "src/platform/curl_http_client.h"
#include "src/platform/fixed_location_source.h"
#include "src/platform/linux_device_info.h"
#include "src/platform/metrics_sink_factory.h"
#include "src/platform/store/record_store_factory.h"
#include "src/platform/vision/opencv_dnn_detector_model.h"

namespace omra {

std::optional<Env> makeDefaultEnv(const Config& config, std::string* error) {
  Env env;
  auto dispatcher = std::make_shared<AsioDispatcher>();
  env.dispatcher = dispatcher;
  env.logger = std::make_shared<ConsoleLogger>();

  CurlHttpOptions httpOptions;
  httpOptions.idleTimeoutSeconds = config.httpIdleTimeoutSeconds;
  env.http = std::make_shared<CurlHttpClient>(*dispatcher, httpOptions);

  KitStoreServices storeServices;
  storeServices.http = env.http;
  storeServices.dispatcher = dispatcher;
  storeServices.accountHeader = kAccountHeader;
  storeServices.recordTables = kitRecordTableSchemas();
  std::string storeError;
  env.records = makeRecordStore(config, storeServices, env.logger, &storeError);
  if (!env.records) {
    if (error)
      *error = "Cannot open the record store \"" + config.recordStore + "\": " + storeError;
    return std::nullopt;
  }
  if (std::optional<StoreError> tables = ensureRecordTables(*env.records)) {
    if (error) *error = "Cannot create the record tables: " + tables->message;
    return std::nullopt;
  }

  env.recordFlushTimeout = std::chrono::milliseconds(
      static_cast<int64_t>(std::llround(config.recordFlushTimeoutSeconds * 1000)));
  env.device = std::make_shared<LinuxDeviceInfo>(config);
  env.metrics = makeMetricsSink(config, *dispatcher, env.logger);
  env.location = FixedLocationSource::fromConfig(config);
  if (!config.modelPath.empty()) {
    std::string modelError;
    env.detector = OpenCvDnnDetectorModel::load(config.modelPath, OpenCvDnnOptions{}, &modelError);
    if (!env.detector) env.logger->print(modelError);
  }
  Urls::configure(config.endpoints);
  return env;
}

}  // namespace omra
